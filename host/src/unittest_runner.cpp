// The runner of test classes: creation by id, one run, the reports copied out of the sink.
#include "quorv/host/unittest_runner.h"

#include <algorithm>
#include <new>

#include "host_internal.h"

namespace quorv::host {

namespace {

struct Collector {
    std::vector<TestReport>* reports;
    const std::function<void(const TestReport&)>* onReport;
    bool outOfMemory = false;
};

void Collect(void* user, const UnitTestReport& r) {
    Collector& c = *static_cast<Collector*>(user);
    try {
        TestReport t;
        t.label = r.label ? r.label : "";
        t.passed = r.passed;
        t.message = r.message ? r.message : "";
        t.iterations = r.iterations;
        if (r.samples && r.sampleCount > 0) t.samples.assign(r.samples, r.samples + r.sampleCount);
        t.mean = r.mean;
        t.variance = r.variance;
        t.stddev = r.stddev;
        t.time = r.time;
        c.reports->push_back(std::move(t));
        if (*c.onReport) (*c.onReport)(c.reports->back());
    } catch (const std::bad_alloc&) {
        // The sink is called from the module: nothing may be thrown back into it.
        c.outOfMemory = true;
    }
}

}  // namespace

std::vector<std::string> ListTestClasses(const char* registry) {
    std::vector<std::string> ids;
    for (const RegistryListing& r : ListRegistryEntries()) {
        if (r.id == registry) ids.insert(ids.end(), r.entries.begin(), r.entries.end());
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

Result<void> RunTestClass(const char* registry, const std::string& id,
                          const DataDictionary& settings, std::vector<TestReport>& reports,
                          const std::function<void(const TestReport&)>& onReport) {
    Result<ObjectRef> object = CreateObjectById(LiteralId(registry), LiteralId(id.c_str()));
    if (object.IsError()) return object.GetError();
    Result<UnitTestRef> test = UnitTestRef::Cast(object.GetValue());
    if (test.IsError()) return test.GetError();
    Collector collector{&reports, &onReport};
    Result<void> run = test.GetValue().Run(settings, UnitTestSink{&Collect, &collector});
    if (collector.outOfMemory) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
    return run;
}

}  // namespace quorv::host
