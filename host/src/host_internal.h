#pragma once
// Private interfaces between the parts of the host: the loader, the service tables and the
// class and registry services.

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "quorv/host/host.h"

namespace quorv {

/// A language of translated texts: its name ("en" ...). Made by `resource::GetCurrentLanguage`,
/// read by data description loads.
struct LanguageObject {
    std::string name;
};

}  // namespace quorv

namespace quorv::host {

// ---- service tables and configuration (host.cpp) ---------------------------------------------
void* FindServiceFunction(Host::State& state, std::string_view interfaceId, const char* name);
/// Adds the functions of a module's interface implementation to the service tables.
void RegisterImplementation(Host::State& state, std::string_view interfaceId, const char* names,
                            Int count, void* const* functions);
/// Removes functions of a module that goes (by interface id) from the service tables.
void UnregisterImplementations(Host::State& state,
                               const std::map<std::string, std::set<void*>>& functions);
bool IsWithheld(const Host::State& state, const std::vector<std::string>& extra,
                std::string_view interfaceId);
Result<void> ApplyConfiguration(LoadedModule& module, std::string_view assignment, bool* found);
/// Applies the assignments made so far to a newly loaded module.
void ApplyPendingConfiguration(Host::State& state, LoadedModule& module);

// ---- module files (elf_check.cpp) ------------------------------------------------------------
/// Ok when `path` is an ELF shared object of this machine whose program headers and loadable
/// segments lie inside the file; else an io error "Cannot load module PATH: reason".
Result<void> CheckSharedObjectFile(const std::string& path);

// ---- system --------------------------------------------------------------------------------
void RegisterSystemService(Host& host);
/// Records a critical message (and echoes it when the options say so).
void HostCriticalOutput(const std::string& message);
/// Drops the calling thread's current error (before a module that made it is unloaded).
void ClearCurrentError();
void SetCriticalEcho(bool echo);
bool GetCriticalEcho();
std::vector<std::string> GetCriticalLogCopy();
void ClearCriticalLogEntries();
void SetFailCountdown(Int n);
/// Allocations left before the one that fails (0: none is set to fail).
Int GetFailCountdown();

// ---- text, loops, serialisation --------------------------------------------------------------
void RegisterLexerService(Host& host);
void RegisterParallelService(Host& host);
void RegisterJobService(Host& host);
/// Width of the job system: the default queue's workers and the parallel loops' arena
/// (`HostOptions::threadCount`, or the machine's when 0).
Int JobSystemThreadCount();
/// Sets that width; called by `Host::Start` before anything uses the default queue or a loop.
void SetJobSystemThreadCount(Int threadCount);
/// The default queue, then every private queue alive: name, threads, jobs queued and running.
std::vector<JobQueueListing> ListJobQueueEntries();
void RegisterObservableService(Host& host);
void RegisterConditionVariableService(Host& host);
void RegisterProgressService(Host& host);
void RegisterResourceService(Host& host);
void RegisterWeakRefService(Host& host);
/// Reader-writer locks on std::shared_mutex.
void RegisterLockService(Host& host);
/// Graph attributes (`GraphLibInterface::CreateAttribute`).
void RegisterGraphService(Host& host);
/// Sets the resource folder (empty: `<exe dir>/../resources`) and the language ("en").
void SetResourceOptions(const std::string& directory, const std::string& language);
/// The text of `key` in `directory`/strings/`language`/`resourceId`.json (falling back to
/// "en"); illegal-argument errors name the resource id and the key.
Result<std::string> LoadResourceStringFrom(const std::string& directory,
                                           const std::string& language, std::string_view resourceId,
                                           std::string_view key);
void RegisterStringConversionService(Host& host);
/// Data descriptions of the registered folders, the current language and the warning log.
void RegisterDataDescriptionService(Host& host);
/// The language of `HostOptions::language` ("en" by default).
std::string GetCurrentLanguageName();
void RegisterDataSerializeService(Host& host);

// ---- classes, registries, application, description databases -------------------------------
void RegisterClassService(Host& host);
/// Creates an empty registry; a second one with the same id is kept (true: created now).
bool CreateRegistry(const LiteralId& id);
/// Removes a registry that has no entries left.
void RemoveRegistryIfEmpty(const LiteralId& id);
std::vector<RegistryListing> ListRegistryEntries();
/// Makes the classes the host defines itself ("net.quorv.class.datadictionaryobject"); called
/// once the host's own binary is bound, before its definitions run.
void RegisterHostClasses();
/// Registers the host's data description object class (after `RegisterHostClasses`).
void RegisterDataDescriptionObjectClass();
/// Records the dictionary keys a bound binary declares (its `idList`) with their value types.
void AddDeclaredKeys(const QuorvModuleInfo& info);
/// Forgets the keys of a binary that is being unloaded.
void RemoveDeclaredKeys(const QuorvModuleInfo& info);
/// OK when `key` is not declared or a binary declared it with `type`; else an illegal-argument
/// error naming the key and both types.
Result<void> CheckDeclaredKeyType(const DataDictionaryKey& key, const DataType* type);
/// Calls `visit` with each component of the instance's class and the offset of its state, in
/// component order; stops at the first error and returns it.
Result<void> ForEachComponentOf(
    const void* instance, const std::function<Result<void>(const ComponentRecord&, Int)>& visit);
/// A registered class by id, searched in all registries; null when none.
ClassObject* FindRegisteredClass(const LiteralId& id);
std::vector<std::pair<std::string, std::string>> ListDatabases();
/// Forgets the databases registered under `id`; true when there was one.
bool UnregisterDatabase(const std::string& id);
/// Module path by module info, for `application::PrivateGetUrl`.
void SetModulePathResolver(std::string (*resolver)(const QuorvModuleInfo* info));

}  // namespace quorv::host
