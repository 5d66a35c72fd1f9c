#pragma once
/// The stand-in host: implements every framework service a module calls, binds slot tables
/// and loads modules. One host per process (slot tables are process-wide data of each binary).
///
/// Start-up: `Host::Start` registers the built-in services, then binds the framework copy of
/// the host's own binary like a module (its slots, its definitions: a test that links module
/// sources directly gets their classes registered too). `LoadModule` then loads shared
/// libraries. Thread safety: `Start`, `LoadModule`, `UnloadModule` and `SetConfiguration` are
/// for one thread at a time; every service is safe on any thread.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorv/classes.h"
#include "quorv/spinwait.h"

/// Marks what `libquorv_host.so` exports: the host's API, nothing of its framework copy.
#define QUORV_HOST_API __attribute__((visibility("default")))

namespace quorv::host {

/// A service implementation: the slot description of its interface and its functions, in
/// slot order.
struct ServiceTable {
    const SlotDescription* description;
    void* const* functions;
};

/// Options of the host; set before `Start`.
struct HostOptions {
    /// Interface ids the host pretends not to have: their slots get the zero stubs. Used to
    /// show that a module loads against a host that lacks an interface.
    std::vector<std::string> withheldInterfaces;
    /// Echo critical messages to stderr (they are always kept in the critical log).
    bool echoCriticalOutput = true;
    /// Width of the job system: workers of the default job queue and of parallel loops. 0 is
    /// the machine's (its cores); more than the cores is allowed (to try thread rules on a
    /// small machine). Private queues get their own threads beside these.
    Int threadCount = 0;
    /// Folder of the application's resources (translated texts in strings/LANGUAGE/ID.json).
    /// Empty: the folder `resources` beside the folder of the running program, i.e.
    /// `<program dir>/../resources` (build/<preset>/resources, or PREFIX/resources installed).
    std::string resourceDirectory;
    /// Language of translated texts; a text missing in it is taken from "en".
    std::string language = "en";
    /// Configuration assignments "name=value", applied to every binary (the host's own and
    /// each module loaded later) after its records are bound and before its definitions run,
    /// so that its initialisation sees them. Names no binary knows are found by
    /// `CheckConfiguration` once the modules are loaded.
    std::vector<std::string> configuration;
};

/// The resource folder in use: `HostOptions::resourceDirectory` of the started host, or the
/// default beside the running program.
QUORV_HOST_API std::string GetResourceDirectory();

/// One loaded module (or the host's own binary).
struct LoadedModule {
    std::string path;        ///< library path; empty for the host's own binary
    void* handle = nullptr;  ///< dlopen handle
    QuorvModuleInfo* info = nullptr;
    CpuYieldDelegate* yieldDelegate = nullptr;
    ConfigurationTable* configuration = nullptr;
    std::vector<std::string> withheld;        ///< interfaces left unbound for this module
    std::vector<EntityBase*> definitionsRun;  ///< classes and initializations, in run order
};

/// A registry's entries, for listing.
struct RegistryListing {
    std::string id;
    std::vector<std::string> entries;
};

/// A registered data type, for listing.
struct DataTypeListing {
    std::string id;
    std::string typeName;
    Int size;
    DATATYPEKIND kind;
};

/// A declared graph attribute, for listing.
struct AttributeListing {
    std::string id;
    std::string typeId;  ///< data type id of its values
};

/// A configuration variable row, for listing.
struct ConfigurationListing {
    std::string name;
    std::string help;
    CONFIGTYPE type;
    std::string value;
};

/// A job queue, for listing: its jobs that wait for a worker, and those that run (their body or,
/// once it has returned, their finished observers; a job a waiter runs inline counts too).
struct JobQueueListing {
    std::string name;  ///< "default" for the job system's own queue
    Int threads;
    Int queued;
    Int running;
};

class Host;

/// Registers services of an optional part of the host (the image services, which link
/// OpenImageIO and LittleCMS): called by `Host::Start` after the built-in services, before the
/// host's own binary is bound. Meant for static initialisers; answers true.
using ServiceProvider = void (*)(Host& host);
QUORV_HOST_API bool AddServiceProvider(ServiceProvider provider);
/// The providers added so far, in order.
QUORV_HOST_API std::vector<ServiceProvider>& ServiceProviders();

class QUORV_HOST_API Host {
public:
    /// The process's host, started on first use with default options.
    static Host& Get();
    /// Starts the host with options; a second call returns the running host unchanged.
    static Host& Start(const HostOptions& options);

    /// Binds the framework copy of another binary of the process (a program that links
    /// `libquorv_host.so` has its own) like a module: its slots, then its definitions. A binary
    /// already bound is left alone. `StartHost` below calls it for the calling binary.
    Result<void> AttachBinary(QuorvModuleInfo* info, CpuYieldDelegate* yieldDelegate);

    /// Loads a module: dlopen, find `g_quorv`, write its initializer, walk its records, bind
    /// its slot tables and run its definitions dependencies first. A failure unloads it again
    /// and names the file. `withheldInterfaces` adds interface ids left unbound for this module
    /// only. Loading a copy of a library under another path gives a second, separate instance.
    Result<LoadedModule*> LoadModule(const std::string& path,
                                     const std::vector<std::string>& withheldInterfaces = {});
    /// Runs the module's free functions and unregister functions in reverse, then dlclose.
    void UnloadModule(LoadedModule* module);
    const std::vector<std::unique_ptr<LoadedModule>>& GetModules() const { return _modules; }

    /// Sets a configuration variable "name=value" in every module, now and for modules loaded
    /// later. An unknown name or a bad value is an illegal-argument error naming it.
    Result<void> SetConfiguration(std::string_view assignment);
    std::vector<ConfigurationListing> ListConfiguration() const;
    /// Checks every assignment made so far (`HostOptions::configuration` included): each must
    /// be of the form name=value, name a variable of a loaded binary and hold a value of its
    /// type; else an illegal-argument error naming the first that does not.
    Result<void> CheckConfiguration() const;

    std::vector<RegistryListing> ListRegistries() const;
    /// The job system's queue, then every private job queue alive.
    std::vector<JobQueueListing> ListJobQueues() const;
    std::vector<DataTypeListing> ListDataTypes() const;
    /// Module ids of every loaded binary, in chain order.
    std::vector<std::string> ListModuleIds() const;
    /// The declared dictionary keys of all loaded binaries: key id and value type id.
    std::vector<std::pair<std::string, std::string>> ListDictionaryKeys() const;
    /// Graph attributes declared with `GraphLibInterface::CreateAttribute`, in order.
    std::vector<AttributeListing> ListAttributes() const;
    /// Databases registered with `RegisterDatabaseWithUrl`: id and url text.
    std::vector<std::pair<std::string, std::string>> ListDescriptionDatabases() const;

    /// Critical messages so far, oldest first (kept for tests and the CLI).
    std::vector<std::string> GetCriticalLog() const;
    void ClearCriticalLog();

    /// Makes the n-th next allocation fail (1: the next one); 0 turns it off. For tests of
    /// out-of-memory paths.
    void FailAllocationAfter(Int n);
    /// True while the failure set by `FailAllocationAfter` has not happened yet: a test asks
    /// it after the call under test to know whether an allocation failed there.
    bool IsAllocationFailurePending() const;

    /// Registers a service implementation; the host's own services are registered by `Start`.
    void RegisterService(const ServiceTable& table);
    template <typename I>
    void RegisterService(const typename I::Slots& functions) {
        RegisterService(ServiceTable{&I::Describe(), reinterpret_cast<void* const*>(&functions)});
    }

    struct State;
    State& GetState() { return *_state; }

private:
    Host();
    void BindModule(LoadedModule& module, const std::vector<std::string>& withheld);
    void RebindStubs(const LoadedModule& supplier);
    Result<void> RunDefinitions(LoadedModule& module);

    std::unique_ptr<State> _state;
    std::vector<std::unique_ptr<LoadedModule>> _modules;
};

/// Where the lines of `SystemInterface::TextOutput` go: `sink` gets each line without its line
/// end; an empty function restores standard output. For tests and programs that capture text.
QUORV_HOST_API void SetTextOutputSink(std::function<void(std::string_view)> sink);
/// The clock behind `SystemInterface::GetTimer`: `source` answers nanoseconds; null restores
/// the monotonic clock (`std::chrono::steady_clock`). For tests that step a clock of their own.
QUORV_HOST_API void SetTimerSource(Int (*source)());

/// Starts the host (as `Host::Start`) and binds the framework copy of the calling binary. A
/// program that links the shared host library (`quorv::host`) starts with this: its own calls
/// through the framework's C++ faces then reach the host's services. In a binary that holds the
/// host objects itself the second step finds its copy bound already.
inline Host& StartHost(const HostOptions& options = {}) {
    Host& h = Host::Start(options);
    Result<void> attached = h.AttachBinary(&g_quorv, &g_CpuYieldDelegate);
    (void)attached;  // a failed definition of the caller is in the critical log
    return h;
}

}  // namespace quorv::host
