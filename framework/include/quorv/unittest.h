#pragma once
/// The contract of test classes: classes that a module registers so that a host can run its
/// self checks ("net.quorv.registry.unittestclasses") and its timings
/// ("net.quorv.registry.speedtestclasses") by id.
///
/// Shape. A test class implements the virtual interface "net.quorv.interface.unittest", one
/// operation:
///
///     Result<void> Run(const DataDictionary& settings, const UnitTestSink& sink);
///
/// `Run` executes every case of the class in its own order on the calling thread and hands one
/// `UnitTestReport` per case (a comparison) or per timed run (a timing) to `sink`, in that
/// order, while it runs. A case that fails is reported with `passed` false and its message; a
/// class may end the run there and then returns an error whose message is that of the failed
/// case. An error that ends the run before a case could be judged (out of memory, a class that
/// cannot be created) is returned without a failed report.
///
/// `settings` carries the runner's overrides under the integer keys below; a missing key
/// leaves the class's own value. Text that a class prints for a person (headers, statistics)
/// goes through `SystemInterface::TextOutput`, one line per call, and times come from
/// `SystemInterface::GetTimer`, so that a host can capture the one and step the other.
///
/// The host's side: `quorv::host::RunTestClass` (quorv/host/unittest_runner.h) creates the
/// class by id, runs it and collects the reports.
///
/// Thread safety: a test class instance runs on one thread; `sink` is called on that thread.

#include "quorv/classes.h"
#include "quorv/datadictionary.h"

namespace quorv {

/// Registry of comparison classes.
constexpr const char* UNITTEST_CLASS_REGISTRY_ID = "net.quorv.registry.unittestclasses";
/// Registry of timing classes.
constexpr const char* SPEEDTEST_CLASS_REGISTRY_ID = "net.quorv.registry.speedtestclasses";

/// Runner settings (integer keys of the settings dictionary).
/// Int: timed samples per run; missing: the class's own number.
constexpr Int32 UNITTEST_SETTING_SAMPLE_SIZE = 1;
/// Int: calls per timed sample; missing: the class's own number.
constexpr Int32 UNITTEST_SETTING_ITERATIONS = 2;
/// Bool: also run the cases a class keeps beyond its standard list.
constexpr Int32 UNITTEST_SETTING_ALL = 3;
/// Int: run only the case of this 0-based position in the full list (-1 or missing: all).
constexpr Int32 UNITTEST_SETTING_CASE = 4;

/// One report. The texts and the samples are valid only during the sink's call.
struct UnitTestReport {
    const char* label = "";            ///< case label, or case label and run suffix for a timing
    Bool passed = true;                ///< false: `message` tells why
    const char* message = "";          ///< failure message; empty when passed
    Int iterations = 0;                ///< calls per timed sample (timings); 0 for comparisons
    Int sampleCount = 0;               ///< stored timed samples; 0 with statistics off
    const Float64* samples = nullptr;  ///< the stored samples in ms, `sampleCount` of them
    Float64 mean = 0.0;                ///< ms; statistics on only
    Float64 variance = 0.0;            ///< ms^2, over n - 1; statistics on only
    Float64 stddev = 0.0;              ///< ms; statistics on only
    Float64 time = 0.0;                ///< ms of the last timed sample (timings)
};

/// Where reports go: a function and the caller's word.
struct UnitTestSink {
    void (*report)(void* user, const UnitTestReport& report) = nullptr;
    void* user = nullptr;

    void operator()(const UnitTestReport& r) const {
        if (report) report(user, r);
    }
};

// clang-format off
#define QUORV_UNITTEST_METHODS(M) \
    M(Result<void>, Run, (const DataDictionary& settings, const UnitTestSink& sink), (settings, sink))
// clang-format on

/// The interface of test classes (see the top of this file).
QUORV_VIRTUAL_INTERFACE(UnitTestInterface, "net.quorv.interface.unittest", QUORV_UNITTEST_METHODS);

/// A counted handle of a test class instance.
using UnitTestRef = UnitTestInterface::Ref;

}  // namespace quorv
