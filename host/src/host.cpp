#include "quorv/host/host.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>

#include "datatype_service.h"
#include "host_internal.h"
#include "media/media_internal.h"
#include "quorv/unittest.h"
#include "services_impl.h"

namespace quorv::host {

struct Host::State {
    struct Service {
        std::unordered_map<std::string, void*> byName;  // "Name@hash" -> function
    };
    HostOptions options;
    std::map<std::string, Service, std::less<>> services;
    std::vector<std::string> configuration;  // assignments, applied to later modules too
};

namespace {
std::unique_ptr<Host> g_host;
// Set as soon as the host exists, so that services called while the host binary's own
// definitions run (inside Start) reach it without the start lock.
std::atomic<Host*> g_running{nullptr};
std::mutex g_startMutex;
}  // namespace

std::vector<ServiceProvider>& ServiceProviders() {
    static std::vector<ServiceProvider> providers;
    return providers;
}

bool AddServiceProvider(ServiceProvider provider) {
    ServiceProviders().push_back(provider);
    return true;
}

Host::Host() : _state(std::make_unique<State>()) {}

Host& Host::Get() {
    if (Host* h = g_running.load(std::memory_order_acquire)) return *h;
    return Start(HostOptions{});
}

Host& Host::Start(const HostOptions& options) {
    std::lock_guard<std::mutex> lock(g_startMutex);
    if (g_host) return *g_host;
    g_host.reset(new Host());
    Host& host = *g_host;
    g_running.store(&host, std::memory_order_release);
    host._state->options = options;
    // Recorded before any binary is bound: the host's own definitions see them too.
    host._state->configuration = options.configuration;
    SetCriticalEcho(options.echoCriticalOutput);
    SetJobSystemThreadCount(options.threadCount);
    RegisterSystemService(host);
    RegisterStringService(host);
    RegisterUrlService(host);
    RegisterDataDictionaryService(host);
    RegisterDataTypeService(host);
    RegisterClassService(host);
    RegisterLexerService(host);
    RegisterParallelService(host);
    RegisterJobService(host);
    RegisterObservableService(host);
    RegisterConditionVariableService(host);
    RegisterProgressService(host);
    SetResourceOptions(options.resourceDirectory, options.language);
    RegisterResourceService(host);
    RegisterWeakRefService(host);
    RegisterLockService(host);
    RegisterGraphService(host);
    RegisterStringConversionService(host);
    RegisterDataSerializeService(host);
    RegisterDataDescriptionService(host);
    RegisterFileByteStreamService(host);
    RegisterMediaSessionService(host);
    for (ServiceProvider provider : ServiceProviders()) provider(host);
    // The registries of test classes are the host's: its runner lists them before any module
    // has put a class there.
    CreateRegistry(LiteralId(UNITTEST_CLASS_REGISTRY_ID));
    CreateRegistry(LiteralId(SPEEDTEST_CLASS_REGISTRY_ID));
    // Formats and handlers are registered by modules; the registries are the host's.
    CreateMediaRegistries();

    // The host's own binary is bound and defined like a module.
    auto self = std::make_unique<LoadedModule>();
    self->info = &g_quorv;
    self->yieldDelegate = &g_CpuYieldDelegate;
    LoadedModule& module = *self;
    host._modules.push_back(std::move(self));
    host.BindModule(module, {});
    RegisterHostClasses();
    RegisterDataDescriptionObjectClass();
    RegisterMediaClasses();
    Result<void> defined = host.RunDefinitions(module);
    if (defined.IsError()) {
        HostCriticalOutput("Definitions of the host binary failed: " +
                           ErrorToString(defined.GetErrorPointer()));
    }
    return host;
}

Result<void> Host::AttachBinary(QuorvModuleInfo* info, CpuYieldDelegate* yieldDelegate) {
    if (!info) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No module record");
    for (const auto& m : _modules) {
        if (m->info == info) return OK;
    }
    auto binary = std::make_unique<LoadedModule>();
    binary->info = info;
    binary->yieldDelegate = yieldDelegate;
    LoadedModule& module = *binary;
    _modules.push_back(std::move(binary));
    BindModule(module, {});
    Result<void> defined = RunDefinitions(module);
    if (defined.IsError()) {
        HostCriticalOutput("Definitions of an attached binary failed: " +
                           ErrorToString(defined.GetErrorPointer()));
    }
    return defined;
}

void Host::RegisterService(const ServiceTable& table) {
    State::Service& s = _state->services[table.description->interfaceId];
    std::string run(static_cast<size_t>(table.description->count) * 64 + 64, '\0');
    BuildSlotNameRun(*table.description, run.data());
    const char* p = run.data();
    for (Int i = 0; i < table.description->count; ++i) {
        s.byName[p] = table.functions[i];
        p += std::strlen(p) + 1;
    }
}

void* FindServiceFunction(Host::State& state, std::string_view interfaceId, const char* name) {
    auto it = state.services.find(interfaceId);
    if (it == state.services.end()) return nullptr;
    auto f = it->second.byName.find(name);
    return f == it->second.byName.end() ? nullptr : f->second;
}

void RegisterImplementation(Host::State& state, std::string_view interfaceId, const char* names,
                            Int count, void* const* functions) {
    Host::State::Service& s = state.services[std::string(interfaceId)];
    const char* p = names;
    for (Int i = 0; i < count; ++i) {
        s.byName[p] = functions[i];
        p += std::strlen(p) + 1;
    }
}

void UnregisterImplementations(Host::State& state,
                               const std::map<std::string, std::set<void*>>& functions) {
    for (const auto& [interfaceId, gone] : functions) {
        auto service = state.services.find(interfaceId);
        if (service == state.services.end()) continue;
        std::erase_if(service->second.byName,
                      [&](const auto& entry) { return gone.count(entry.second) > 0; });
    }
}

bool IsWithheld(const Host::State& state, const std::vector<std::string>& extra,
                std::string_view interfaceId) {
    for (const auto& w : state.options.withheldInterfaces) {
        if (w == interfaceId) return true;
    }
    for (const auto& w : extra) {
        if (w == interfaceId) return true;
    }
    return false;
}

// ---- configuration ----------------------------------------------------------------------

namespace {

Result<void> AssignRow(const ConfigurationRow& row, std::string_view value) {
    std::string v(value);
    auto bad = [&] {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Bad value @ for configuration variable @", {v, row.name}));
    };
    switch (row.type) {
        case CONFIGTYPE::BOOL:
            if (v == "true" || v == "1")
                *static_cast<Bool*>(row.variable) = true;
            else if (v == "false" || v == "0")
                *static_cast<Bool*>(row.variable) = false;
            else
                return bad();
            return OK;
        case CONFIGTYPE::INT: {
            char* end = nullptr;
            long long n = std::strtoll(v.c_str(), &end, 10);
            if (v.empty() || *end) return bad();
            *static_cast<Int*>(row.variable) = n;
            return OK;
        }
        case CONFIGTYPE::FLOAT: {
            char* end = nullptr;
            double d = std::strtod(v.c_str(), &end);
            if (v.empty() || *end) return bad();
            *static_cast<Float64*>(row.variable) = d;
            return OK;
        }
        case CONFIGTYPE::STRING:
            if (static_cast<Int>(v.size()) >= CONFIG_STRING_CAPACITY) return bad();
            std::memcpy(row.variable, v.c_str(), v.size() + 1);
            return OK;
    }
    return bad();
}

std::string RowValue(const ConfigurationRow& row) {
    switch (row.type) {
        case CONFIGTYPE::BOOL:
            return *static_cast<Bool*>(row.variable) ? "true" : "false";
        case CONFIGTYPE::INT:
            return std::to_string(*static_cast<Int*>(row.variable));
        case CONFIGTYPE::FLOAT:
            return std::to_string(*static_cast<Float64*>(row.variable));
        case CONFIGTYPE::STRING:
            return static_cast<const char*>(row.variable);
    }
    return {};
}

}  // namespace

Result<void> ApplyConfiguration(LoadedModule& module, std::string_view assignment, bool* found) {
    auto eq = assignment.find('=');
    std::string_view name = assignment.substr(0, eq);
    std::string_view value = eq == std::string_view::npos ? "" : assignment.substr(eq + 1);
    if (!module.configuration) return OK;
    for (Int i = 0; i < module.configuration->count; ++i) {
        const ConfigurationRow& row = module.configuration->rows[i];
        if (name == row.name) {
            *found = true;
            QUORV_RETURN_IF_ERROR(AssignRow(row, value));
        }
    }
    return OK;
}

void ApplyPendingConfiguration(Host::State& state, LoadedModule& module) {
    for (const auto& a : state.configuration) {
        bool found = false;
        Result<void> r = ApplyConfiguration(module, a, &found);
        (void)r;
    }
}

Result<void> Host::SetConfiguration(std::string_view assignment) {
    if (assignment.find('=') == std::string_view::npos) {
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            FormatMessage("Configuration @ is not of the form name=value", {assignment}));
    }
    bool found = false;
    for (auto& m : _modules) QUORV_RETURN_IF_ERROR(ApplyConfiguration(*m, assignment, &found));
    if (!found) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown configuration variable @",
                                       {assignment.substr(0, assignment.find('='))}));
    }
    _state->configuration.emplace_back(assignment);
    return OK;
}

Result<void> Host::CheckConfiguration() const {
    for (const std::string& assignment : _state->configuration) {
        const auto eq = assignment.find('=');
        if (eq == std::string::npos) {
            return MakeError(
                ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                FormatMessage("Configuration @ is not of the form name=value", {assignment}));
        }
        const std::string_view name = std::string_view(assignment).substr(0, eq);
        bool found = false;
        for (const auto& m : _modules) {
            if (!m->configuration) continue;
            for (Int i = 0; i < m->configuration->count; ++i) {
                ConfigurationRow row = m->configuration->rows[i];
                if (name != row.name) continue;
                found = true;
                // The value is parsed into scratch storage: the variable keeps what it has.
                alignas(16) char scratch[CONFIG_STRING_CAPACITY];
                row.variable = scratch;
                QUORV_RETURN_IF_ERROR(AssignRow(row, assignment.substr(eq + 1)));
            }
        }
        if (!found) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Unknown configuration variable @", {name}));
        }
    }
    return OK;
}

std::vector<ConfigurationListing> Host::ListConfiguration() const {
    std::vector<ConfigurationListing> out;
    for (auto& m : _modules) {
        if (!m->configuration) continue;
        for (Int i = 0; i < m->configuration->count; ++i) {
            const ConfigurationRow& row = m->configuration->rows[i];
            out.push_back({row.name, row.text0, row.type, RowValue(row)});
        }
    }
    return out;
}

// ---- listings -------------------------------------------------------------------------------

std::vector<RegistryListing> Host::ListRegistries() const { return ListRegistryEntries(); }

std::vector<JobQueueListing> Host::ListJobQueues() const { return ListJobQueueEntries(); }

std::vector<DataTypeListing> Host::ListDataTypes() const {
    std::vector<DataTypeListing> out;
    for (const DataType* t : quorv::host::ListDataTypes()) {
        out.push_back(
            {std::string(t->id.View()), t->typeName ? t->typeName : "", t->size, t->kind});
    }
    return out;
}

std::vector<std::string> Host::ListModuleIds() const {
    std::vector<std::string> out;
    for (auto& m : _modules) {
        for (ModuleRecord* r = m->info->modules; r; r = r->nextModule) {
            out.emplace_back(r->id.IsEmpty() ? "(unnamed)" : std::string(r->id.View()));
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> Host::ListDictionaryKeys() const {
    std::vector<std::pair<std::string, std::string>> out;
    for (auto& m : _modules) {
        for (DictionaryKeyRecord* k = m->info->idList; k; k = k->next) {
            out.emplace_back(std::string(k->id.View()), k->typeId ? k->typeId : "");
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> Host::ListDescriptionDatabases() const {
    return ListDatabases();
}

std::vector<std::string> Host::GetCriticalLog() const { return GetCriticalLogCopy(); }
void Host::ClearCriticalLog() { ClearCriticalLogEntries(); }
void Host::FailAllocationAfter(Int n) { SetFailCountdown(n); }

bool Host::IsAllocationFailurePending() const { return GetFailCountdown() > 0; }

}  // namespace quorv::host
