// The node world's notification of preference observers, the cached parameters of the default
// exchange and renderer names: the module's sources linked in.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "quorv/host/host.h"
#include "quorv/host/warnings.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::nodes {
namespace {

void StartOnce() {
    static bool started = [] {
        host::HostOptions options;
        options.echoCriticalOutput = false;
        host::Host::Start(options);
        (void)host::RegisterDescriptionFolder("net.quorv.bench.nodes", QUORV_NODES_DATA_DIR);
        return true;
    }();
    (void)started;
}

constexpr Int ENTRIES = 64;
constexpr Int GROUP_A = 100, GROUP_B = 101;

// 64 entries and two sub-dictionaries of 64; key 0 holds `changed`.
DataDictionary Preferences(Int changed) {
    DataDictionary d = DataDictionary::Create().GetValue();
    for (Int k = 0; k < ENTRIES; ++k) (void)d.SetData(k, Data::Of(k == 0 ? changed : k));
    for (Int g : {GROUP_A, GROUP_B}) {
        DataDictionary sub = DataDictionary::Create().GetValue();
        for (Int k = 0; k < ENTRIES; ++k) (void)sub.SetData(k, Data::Of(Float64(k)));
        (void)d.SetData(g, Data::Of(sub));
    }
    return d;
}

Data Message(const DataDictionary& preferences) {
    DataDictionary m = DataDictionary::Create().GetValue();
    (void)m.SetData(preferenceskey::PREFERENCES_CHANGED, Data::Of(Bool(true)));
    (void)m.SetData(preferenceskey::RENDERDATA_CHANGED, Data::Of(Bool(false)));
    (void)m.SetData(preferenceskey::PREFERENCES, Data::Of(preferences));
    return Data::Of(m);
}

// 1,000 observers watching four entries each (two in sub-dictionaries); every tenth watches the
// entry that changes. Time per observer of one message.
void BM_NotifyPreferences(benchmark::State& state) {
    StartOnce();
    FreeNodeWorld();
    Int calls = 0;
    auto d = PreferencesObserver::Create(
        [&calls](const DataDictionary&, const DataDictionary&) { ++calls; });
    std::vector<ObserverHandleRef> handles;
    for (Int i = 0; i < 1000; ++i) {
        const Int first = i % 10 == 0 ? 0 : 1 + i % 60;
        const WatchList watch = {{-1, first}, {-1, 61}, {GROUP_A, i % 64}, {GROUP_B, (i * 7) % 64}};
        handles.push_back(
            NodeWorldInterface::AddActivePreferencesObserver(d.GetValue(), false, watch, {})
                .GetValue());
    }
    const Data messages[2] = {Message(Preferences(1)), Message(Preferences(2))};
    const Id id = Id::Intern(nodeworldmessage::PREFERENCESCHANGED);
    (void)NodeWorldInterface::QuorvMessage(id, messages[0]);
    Int n = 0;
    for (auto _ : state) {
        (void)NodeWorldInterface::QuorvMessage(id, messages[++n & 1]);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
    state.counters["called"] = benchmark::Counter(static_cast<double>(calls) / state.iterations());
    handles.clear();
}
BENCHMARK(BM_NotifyPreferences);

void BM_GetMaterialParametersCached(benchmark::State& state) {
    StartOnce();
    Result<ObjectRef> o = CreateObjectById(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                                           LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
    MaterialExchangeInterface::Ref e =
        MaterialExchangeInterface::Ref::Cast(o.GetValue()).GetValue();
    if (e.GetMaterialParameters().IsError()) state.SkipWithError("no description");
    for (auto _ : state) {
        Result<DataDictionary> p = e.GetMaterialParameters();
        benchmark::DoNotOptimize(p.GetValue().GetObject());
    }
}
BENCHMARK(BM_GetMaterialParametersCached)->Threads(1)->Threads(2);

void BM_GetRendererName(benchmark::State& state) {
    StartOnce();
    if (state.thread_index() == 0) {
        for (int i = 0; i < 16; ++i) {
            (void)NodeWorldInterface::QuorvMessage(
                Id::Intern(nodeworldmessage::RENDERERINSERTED),
                Data::Of(IdStringTuple{Id::Intern("net.quorv.bench.renderer." + std::to_string(i)),
                                       "Renderer " + std::to_string(i)}));
        }
    }
    const Id id = Id::Intern("net.quorv.bench.renderer.7");
    for (auto _ : state) {
        Result<std::string> name = NodeWorldInterface::GetRendererName(id);
        benchmark::DoNotOptimize(name.GetValue().data());
    }
}
BENCHMARK(BM_GetRendererName)->Threads(1)->Threads(2);

// A lookup of a present key in a dictionary of `range(0)` entries, the keys taken in turn: what
// the watch test does a dozen times per observer. Integer keys, then id keys whose texts are
// the lookup's own (so bytes are compared, as for keys declared in another module).
void BM_DictionaryFindNumber(benchmark::State& state) {
    StartOnce();
    const Int n = state.range(0);
    DataDictionary d = DataDictionary::Create().GetValue();
    for (Int k = 0; k < n; ++k) (void)d.SetData(k * 3, Data::Of(k));
    Int k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(d.Find(k * 3));
        if (++k == n) k = 0;
    }
}
BENCHMARK(BM_DictionaryFindNumber)->Arg(2)->Arg(4)->Arg(8)->Arg(16)->Arg(64);

void BM_DictionaryFindId(benchmark::State& state) {
    StartOnce();
    const Int n = state.range(0);
    std::vector<std::string> keys;
    for (Int k = 0; k < n; ++k)
        keys.push_back("net.quorv.bench.dictionary.key" + std::to_string(k));
    DataDictionary d = DataDictionary::Create().GetValue();
    for (Int k = 0; k < n; ++k) (void)d.SetData(LiteralId(keys[k].c_str()), Data::Of(k));
    std::vector<DataDictionaryKey> lookups;
    for (const std::string& key : keys) lookups.emplace_back(LiteralId(key.c_str()));
    size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(d.Find(lookups[k]));
        if (++k == lookups.size()) k = 0;
    }
}
BENCHMARK(BM_DictionaryFindId)->Arg(2)->Arg(4)->Arg(8)->Arg(16)->Arg(64);

}  // namespace
}  // namespace quorv::nodes

BENCHMARK_MAIN();
