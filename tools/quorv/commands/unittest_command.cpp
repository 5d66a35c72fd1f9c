// quorv unittest / quorv speedtest: the module's test classes, run by id through the host's
// runner.
#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>

#include "commands.h"
#include "jsonio.h"
#include "quorv/host/unittest_runner.h"

namespace quorv::cli {

namespace {

struct TestOptions {
    std::string id;
    bool all = false;
    bool json = false;
    Int sampleSize = 0;  // 0: the class's own number
    Int iterations = 0;
    Int caseIndex = -1;
};

Result<DataDictionary> MakeSettings(const TestOptions& o) {
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created;
    DataDictionary d = created.GetValue();
    auto set = [&](Int32 key, const Data& value) -> Result<void> {
        if (value.IsEmpty()) return MakeError(ERRORKIND::OUTOFMEMORY, QUORV_SOURCE_LOCATION);
        return d.SetData(DataDictionaryKey(key), value);
    };
    if (o.all) QUORV_RETURN_IF_ERROR(set(UNITTEST_SETTING_ALL, Data::Of<Bool>(true)));
    if (o.sampleSize > 0) {
        QUORV_RETURN_IF_ERROR(set(UNITTEST_SETTING_SAMPLE_SIZE, Data::Of<Int>(o.sampleSize)));
    }
    if (o.iterations > 0) {
        QUORV_RETURN_IF_ERROR(set(UNITTEST_SETTING_ITERATIONS, Data::Of<Int>(o.iterations)));
    }
    if (o.caseIndex >= 0)
        QUORV_RETURN_IF_ERROR(set(UNITTEST_SETTING_CASE, Data::Of<Int>(o.caseIndex)));
    return d;
}

int ListClasses(const GlobalOptions& options, const char* registry, bool json) {
    if (!StartHost(options)) return 1;
    const std::vector<std::string> ids = host::ListTestClasses(registry);
    if (json) return WriteOutputLine(Line(Json(ids))) ? 0 : 1;
    for (const std::string& id : ids) {
        if (!WriteOutputLine(id)) return 1;
    }
    return 0;
}

int Fail(const Result<void>& r) {
    std::fprintf(stderr, "quorv: %s\n", ErrorToString(r.GetErrorPointer()).c_str());
    return 1;
}

int RunUnitTest(const GlobalOptions& options, const TestOptions& o) {
    if (!StartHost(options)) return 1;
    Result<DataDictionary> settings = MakeSettings(o);
    if (settings.IsError()) return Fail(settings.GetError());
    std::vector<host::TestReport> reports;
    bool written = true;
    // Each case is printed as it ends: a long run shows its progress.
    auto print = [&](const host::TestReport& r) {
        if (o.json) {
            written =
                written && WriteOutputLine(Line(Json{
                               {"label", r.label}, {"passed", r.passed}, {"message", r.message}}));
        } else {
            written = written && WriteOutputLine(r.passed ? r.label + "  passed"
                                                          : r.label + "  FAILED: " + r.message);
        }
        std::fflush(stdout);
    };
    Result<void> run =
        host::RunTestClass(UNITTEST_CLASS_REGISTRY_ID, o.id, settings.GetValue(), reports, print);
    if (!written) return 1;
    const bool caseFailed =
        std::any_of(reports.begin(), reports.end(), [](const auto& r) { return !r.passed; });
    // A failed case has been printed with its message; other errors are told here.
    if (run.IsError() && !caseFailed) return Fail(run);
    return run.IsError() || caseFailed ? 1 : 0;
}

// ns per call of a run: its mean with statistics, else its one time.
Float64 NanosecondsPerCall(const host::TestReport& r) {
    if (r.iterations <= 0) return 0.0;
    const Float64 ms = r.samples.empty() ? r.time : r.mean;
    return ms * 1e6 / static_cast<Float64>(r.iterations);
}

constexpr const char* RUN_SUFFIXES[4] = {" Legacy SampleF", " Horizona SampleF",
                                         " Legacy ComputeBSDF", " Horizona ComputeBSDF"};

int RunSpeedTest(const GlobalOptions& options, const TestOptions& o) {
    if (!StartHost(options)) return 1;
    Result<DataDictionary> settings = MakeSettings(o);
    if (settings.IsError()) return Fail(settings.GetError());
    // In JSON mode stdout carries only the report lines; the printed statistics go to stderr.
    if (o.json) {
        host::SetTextOutputSink([](std::string_view line) {
            std::fwrite(line.data(), 1, line.size(), stderr);
            std::fputc('\n', stderr);
        });
    }
    std::vector<host::TestReport> reports;
    bool written = true;
    auto print = [&](const host::TestReport& r) {
        if (!o.json) return;
        Json j{{"label", r.label}};
        if (!r.samples.empty()) {
            j["mean"] = NumberToJson(r.mean);
            j["variance"] = NumberToJson(r.variance);
            j["stddev"] = NumberToJson(r.stddev);
        } else {
            j["time"] = NumberToJson(r.time);
        }
        written = written && WriteOutputLine(Line(j));
        std::fflush(stdout);
    };
    Result<void> run =
        host::RunTestClass(SPEEDTEST_CLASS_REGISTRY_ID, o.id, settings.GetValue(), reports, print);
    host::SetTextOutputSink({});
    if (run.IsError()) return Fail(run);
    if (!written) return 1;
    if (o.json) return 0;

    // The table: one row per case, its four runs in ns per call, each pair with its ratio.
    std::vector<std::string> cases;
    std::map<std::string, std::array<Float64, 4>> times;
    for (const host::TestReport& r : reports) {
        for (int k = 0; k < 4; ++k) {
            const std::string suffix = RUN_SUFFIXES[k];
            if (r.label.size() > suffix.size() &&
                r.label.compare(r.label.size() - suffix.size(), suffix.size(), suffix) == 0) {
                const std::string label = r.label.substr(0, r.label.size() - suffix.size());
                if (!times.count(label)) {
                    cases.push_back(label);
                    times[label] = {0.0, 0.0, 0.0, 0.0};
                }
                times[label][k] = NanosecondsPerCall(r);
            }
        }
    }
    char line[512];
    std::snprintf(line, sizeof(line), "%-58s %10s %10s %6s %10s %10s %6s", "case (ns per call)",
                  "Legacy", "Horizona", "ratio", "Legacy", "Horizona", "ratio");
    if (!WriteOutputLine(line)) return 1;
    std::snprintf(line, sizeof(line), "%-58s %10s %10s %6s %10s %10s %6s", "", "SampleF", "SampleF",
                  "", "ComputeBSDF", "ComputeBSDF", "");
    if (!WriteOutputLine(line)) return 1;
    for (const std::string& c : cases) {
        const auto& t = times[c];
        const Float64 r1 = t[0] > 0.0 ? t[1] / t[0] : 0.0;
        const Float64 r2 = t[2] > 0.0 ? t[3] / t[2] : 0.0;
        std::snprintf(line, sizeof(line), "%-58s %10.2f %10.2f %6.2f %10.2f %10.2f %6.2f",
                      c.c_str(), t[0], t[1], r1, t[2], t[3], r2);
        if (!WriteOutputLine(line)) return 1;
    }
    return 0;
}

}  // namespace

void AddUnitTestCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    CLI::App* cmd = app.add_subcommand(
        "unittest",
        "Run the module's comparison classes (registry net.quorv.registry.unittestclasses)");
    cmd->require_subcommand(1);
    auto o = std::make_shared<TestOptions>();

    CLI::App* list = cmd->add_subcommand("list", "List the comparison classes");
    list->add_flag("--json", o->json, "One JSON array of ids");
    list->callback([&options, &run, o] {
        run = [&options, o] { return ListClasses(options, UNITTEST_CLASS_REGISTRY_ID, o->json); };
    });

    CLI::App* r = cmd->add_subcommand("run",
                                      "Run a comparison class: a line per case, \"LABEL  passed\" "
                                      "or \"LABEL  FAILED: message\";\n"
                                      "exit 1 on a failure");
    r->add_option("ID", o->id, "Class id, e.g. net.quorv.unittest.bsdftest")->required();
    r->add_flag("--all", o->all, "Also the cases beyond the standard list");
    r->add_option("--case", o->caseIndex, "Only the case at this 0-based position of the full list")
        ->check(CLI::NonNegativeNumber);
    r->add_flag("--json", o->json, "A JSON line per case: {\"label\",\"passed\",\"message\"}");
    r->callback([&options, &run, o] { run = [&options, o] { return RunUnitTest(options, *o); }; });
}

void AddSpeedTestCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    CLI::App* cmd = app.add_subcommand(
        "speedtest",
        "Run the module's timing classes (registry net.quorv.registry.speedtestclasses)");
    cmd->require_subcommand(1);
    auto o = std::make_shared<TestOptions>();

    CLI::App* list = cmd->add_subcommand("list", "List the timing classes");
    list->add_flag("--json", o->json, "One JSON array of ids");
    list->callback([&options, &run, o] {
        run = [&options, o] { return ListClasses(options, SPEEDTEST_CLASS_REGISTRY_ID, o->json); };
    });

    CLI::App* r = cmd->add_subcommand(
        "run",
        "Run a timing class and print ns per call, Legacy against Horizona, per case.\n"
        "Without --config g_runUnitTestRenderStatistics=true a run is 50,000,000 calls (minutes\n"
        "per cloth case); with it, 500 samples of 65,536 calls and the statistics lines");
    r->add_option("ID", o->id, "Class id, e.g. net.quorv.speedtestclass.speedtestbsdftest")
        ->required();
    r->add_option("--sample-size", o->sampleSize, "Timed samples per run")
        ->check(CLI::PositiveNumber);
    r->add_option("--iterations", o->iterations, "Calls per timed sample")
        ->check(CLI::PositiveNumber);
    r->add_option("--case", o->caseIndex, "Only the case at this 0-based position")
        ->check(CLI::NonNegativeNumber);
    r->add_flag("--json", o->json,
                "A JSON line per run: {\"label\",\"mean\",\"variance\",\"stddev\"} in ms with\n"
                "statistics, else {\"label\",\"time\"}");
    r->callback([&options, &run, o] { run = [&options, o] { return RunSpeedTest(options, *o); }; });
}

}  // namespace quorv::cli
