#pragma once
/// The host's runner of test classes (quorv/unittest.h): makes a class by id from
/// "net.quorv.registry.unittestclasses" or "net.quorv.registry.speedtestclasses", runs it and
/// collects its reports.
///
/// Thread safety: one run at a time per thread; the class runs on the caller's thread.

#include <functional>
#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/unittest.h"

namespace quorv::host {

/// A report as the runner keeps it (the class's texts and samples copied).
struct TestReport {
    std::string label;
    bool passed = true;
    std::string message;
    Int iterations = 0;
    std::vector<Float64> samples;  ///< ms; empty with statistics off
    Float64 mean = 0.0;
    Float64 variance = 0.0;
    Float64 stddev = 0.0;
    Float64 time = 0.0;  ///< ms of the last timed sample
};

/// The class ids of a registry, sorted; an unknown registry gives none.
QUORV_HOST_API std::vector<std::string> ListTestClasses(const char* registry);

/// Creates class `id` of `registry`, runs it with `settings` and appends its reports to
/// `reports` as they arrive; `onReport`, when set, sees each one as soon as it is kept. The
/// result is the run's: an unknown id or a class without the test interface is an
/// illegal-argument error naming it; a failed case ends the run with its message.
QUORV_HOST_API Result<void> RunTestClass(
    const char* registry, const std::string& id, const DataDictionary& settings,
    std::vector<TestReport>& reports, const std::function<void(const TestReport&)>& onReport = {});

}  // namespace quorv::host
