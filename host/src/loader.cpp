// The module loader: dlopen, find `g_quorv`, write the initializer, walk the records, bind the
// slot tables, run the definitions dependencies first; and the reverse at unload.
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "datatype_service.h"
#include "host_internal.h"

namespace quorv::host {

namespace {

template <typename F>
void ForEachUnit(const QuorvModuleInfo& info, F f) {
    std::set<const TranslationUnitRecord*> seen;
    for (ModuleRecord* m = info.modules; m; m = m->nextModule) {
        for (TranslationUnitRecord* u = m->firstUnit; u; u = u->nextUnit) {
            if (seen.insert(u).second) f(*u);
        }
    }
}

template <typename F>
void ForEachRecord(TranslationUnitRecord& unit, F f) {
    for (EntityBase* r = unit.first; r; r = r->next) f(*r);
}

// Binds each slot of a table by "Name@hash"; an unbound slot gets the interface's zero stub.
void BindSlots(Host::State& state, NonVirtualInterfaceRecord& record,
               const std::vector<std::string>& withheld) {
    bool held = IsWithheld(state, withheld, record.id.View());
    const char* name = record.methodNames;
    for (Int i = 0; i < record.count; ++i) {
        void* f = held ? nullptr : FindServiceFunction(state, record.id.View(), name);
        if (!f && record.stubFiller) f = record.stubFiller(&record, i);
        record.slots[i] = f;
        name += std::strlen(name) + 1;
    }
    record.flags |= EntityBase::FLAGS::INITIALIZED;
}

// Resolves records on demand for the module (its `initializer`): fills the record's value
// slot, or reports the unresolved error naming the id.
void Initializer(EntityBase* record, UInt, const LiteralId* id, ErrorObject** error) {
    if (error) *error = nullptr;
    if (!record) return;
    const std::string name(id ? id->View() : record->id.View());
    bool resolved = false;
    switch (record->GetType()) {
        case EntityBase::TYPE::DECLARATION: {
            auto* d = static_cast<DeclarationRecord*>(record);
            if (!d->value) d->value = FindRegisteredClass(LiteralId(name.c_str()));
            if (!d->value) {
                d->value =
                    const_cast<DataType*>(DataTypeLibInterface::GetRuntimeDataType(name.c_str()));
            }
            resolved = d->value != nullptr;
            break;
        }
        case EntityBase::TYPE::DATATYPE: {
            auto* d = static_cast<DataTypeRecord*>(record);
            if (!d->value) d->value = DataTypeLibInterface::GetRuntimeDataType(name.c_str());
            resolved = d->value != nullptr;
            break;
        }
        case EntityBase::TYPE::CLASS: {
            auto* c = static_cast<ClassRecord*>(record);
            if (!c->value) c->value = FindRegisteredClass(LiteralId(name.c_str()));
            resolved = c->value != nullptr;
            break;
        }
        case EntityBase::TYPE::NONVIRTUAL_INTERFACE: {
            auto* nv = static_cast<NonVirtualInterfaceRecord*>(record);
            if (nv->slots) BindSlots(Host::Get().GetState(), *nv, {});
            resolved = true;
            break;
        }
        default:
            break;
    }
    if (!resolved && error) {
        *error = MakeError(ERRORKIND::UNRESOLVED, QUORV_SOURCE_LOCATION,
                           FormatMessage("Cannot resolve @", {name}))
                     .Disconnect();
    }
}

// Units in an order where each comes after the units its dependencies point into.
std::vector<TranslationUnitRecord*> OrderUnits(const QuorvModuleInfo& info) {
    std::vector<TranslationUnitRecord*> units;
    ForEachUnit(info, [&](TranslationUnitRecord& u) { units.push_back(&u); });
    std::vector<TranslationUnitRecord*> order;
    std::map<TranslationUnitRecord*, int> state;  // 1 visiting, 2 done
    std::function<void(TranslationUnitRecord*)> visit = [&](TranslationUnitRecord* u) {
        int& s = state[u];
        if (s != 0) return;  // done, or a cycle: the earlier visit stands
        s = 1;
        for (DependencyRecord* d = u->dependencies; d; d = d->nextDependency) {
            if (d->target && d->target->unit && d->target->unit != u) visit(d->target->unit);
        }
        state[u] = 2;
        order.push_back(u);
    };
    for (TranslationUnitRecord* u : units) visit(u);
    return order;
}

// The functions of the interfaces a module implements, by interface id.
std::map<std::string, std::set<void*>> ImplementedFunctions(const QuorvModuleInfo& info) {
    std::map<std::string, std::set<void*>> out;
    ForEachUnit(info, [&](TranslationUnitRecord& unit) {
        ForEachRecord(unit, [&](EntityBase& r) {
            if (r.GetType() != EntityBase::TYPE::NONVIRTUAL_INTERFACE) return;
            auto& nv = static_cast<NonVirtualInterfaceRecord&>(r);
            if (!nv.implementation) return;
            std::set<void*>& functions = out[std::string(nv.id.View())];
            for (Int i = 0; i < nv.count; ++i) functions.insert(nv.implementation[i]);
        });
    });
    return out;
}

std::string ModulePathOf(const QuorvModuleInfo* info) {
    for (const auto& m : Host::Get().GetModules()) {
        if (m->info == info) return m->path;
    }
    return {};
}

}  // namespace

void Host::BindModule(LoadedModule& module, const std::vector<std::string>& withheld) {
    QuorvModuleInfo& info = *module.info;
    info.initializer = &Initializer;
    SetModulePathResolver(&ModulePathOf);
    // Implementations a module supplies first, so that its own tables can bind to them.
    ForEachUnit(info, [&](TranslationUnitRecord& unit) {
        ForEachRecord(unit, [&](EntityBase& r) {
            if (r.GetType() != EntityBase::TYPE::NONVIRTUAL_INTERFACE) return;
            auto& nv = static_cast<NonVirtualInterfaceRecord&>(r);
            if (nv.implementation) {
                RegisterImplementation(*_state, nv.id.View(), nv.methodNames, nv.count,
                                       nv.implementation);
            }
        });
        for (DependencyRecord* d = unit.dependencies; d; d = d->nextDependency) {
            // A dependency added before its target was defined names the target only now.
            if (d->id.IsEmpty() && d->target) d->id = d->target->id;
            if (d->id == ".configuration" && d->payload) {
                module.configuration = static_cast<ConfigurationTable*>(d->payload);
            }
        }
    });
    ForEachUnit(info, [&](TranslationUnitRecord& unit) {
        ForEachRecord(unit, [&](EntityBase& r) {
            if (r.GetType() != EntityBase::TYPE::NONVIRTUAL_INTERFACE) return;
            auto& nv = static_cast<NonVirtualInterfaceRecord&>(r);
            if (nv.slots) BindSlots(*_state, nv, withheld);
        });
    });
    ApplyPendingConfiguration(*_state, module);
    AddDeclaredKeys(info);
    if (module.handle) RebindStubs(module);
}

// A module that supplies an interface (its static interfaces) makes it callable from binaries
// bound before it: slots of theirs that hold stubs are bound again.
void Host::RebindStubs(const LoadedModule& supplier) {
    for (auto& other : _modules) {
        if (other.get() == &supplier) continue;
        ForEachUnit(*other->info, [&](TranslationUnitRecord& unit) {
            ForEachRecord(unit, [&](EntityBase& r) {
                if (r.GetType() != EntityBase::TYPE::NONVIRTUAL_INTERFACE) return;
                auto& nv = static_cast<NonVirtualInterfaceRecord&>(r);
                if (!nv.slots || !nv.stubFiller) return;
                if (IsWithheld(*_state, other->withheld, nv.id.View())) return;
                const char* name = nv.methodNames;
                for (Int i = 0; i < nv.count; ++i) {
                    if (nv.slots[i] == nv.stubFiller(&nv, i)) {
                        if (void* f = FindServiceFunction(*_state, nv.id.View(), name))
                            nv.slots[i] = f;
                    }
                    name += std::strlen(name) + 1;
                }
            });
        });
    }
}

Result<void> Host::RunDefinitions(LoadedModule& module) {
    using T = EntityBase::TYPE;
    using F = EntityBase::FLAGS;
    const QuorvModuleInfo& info = *module.info;
    // Registries and data types first: classes name them.
    Result<void> failure = OK;
    ForEachUnit(info, [&](TranslationUnitRecord& unit) {
        ForEachRecord(unit, [&](EntityBase& r) {
            if (failure.IsError()) return;
            if (r.GetType() == T::REGISTRY) {
                CreateRegistry(r.id);
                r.flags |= F::INITIALIZED;
            } else if (r.GetType() == T::DATATYPE) {
                Result<const DataType*> t =
                    DefineDataTypeFromRecord(static_cast<DataTypeRecord&>(r));
                if (t.IsError()) {
                    r.flags |= F::INITIALIZATION_FAILED;
                    failure = t.GetError();
                } else {
                    r.flags |= F::INITIALIZED;
                }
            }
        });
    });
    if (failure.IsError()) return failure;
    for (TranslationUnitRecord* unit : OrderUnits(info)) {
        for (EntityBase* r = unit->first; r; r = r->next) {
            Result<void> result = OK;
            if (r->GetType() == T::INITIALIZATION) {
                auto* init = static_cast<InitializationRecord*>(r);
                r->flags |= F::INITIALIZING;
                if (init->init) result = init->init();
            } else if (r->GetType() == T::CLASS) {
                auto* cls = static_cast<ClassRecord*>(r);
                r->flags |= F::INITIALIZING;
                if (cls->registerFunc) result = cls->registerFunc(cls);
            } else {
                continue;
            }
            r->flags &= ~F::INITIALIZING;
            if (result.IsError()) {
                r->flags |= F::INITIALIZATION_FAILED;
                return result;
            }
            r->flags |= F::INITIALIZED;
            module.definitionsRun.push_back(r);
        }
    }
    return OK;
}

Result<LoadedModule*> Host::LoadModule(const std::string& path,
                                       const std::vector<std::string>& withheldInterfaces) {
    QUORV_RETURN_IF_ERROR(CheckSharedObjectFile(path));
    // A bare name is a file here, as for the check above, not a search of the library path.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                               FormatMessage("Cannot load module @: @", {path, why ? why : "?"}));
    }
    auto* info = static_cast<QuorvModuleInfo*>(dlsym(handle, "g_quorv"));
    auto* delegate = static_cast<CpuYieldDelegate*>(dlsym(handle, "g_CpuYieldDelegate"));
    if (!info || !delegate) {
        dlclose(handle);
        return MakeErrorWithId(
            "net.quorv.error.io", QUORV_SOURCE_LOCATION,
            FormatMessage("@ is not a module: no g_quorv or g_CpuYieldDelegate", {path}));
    }
    for (const auto& loaded : _modules) {
        if (loaded->info == info) {
            dlclose(handle);  // drops the count the second dlopen added
            return MakeError(
                ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                FormatMessage("Module @ is already loaded as @",
                              {path, loaded->path.empty() ? "the host" : loaded->path}));
        }
    }
    if (info->version0 != QUORV_VERSION_0 || info->version1 != QUORV_VERSION_1) {
        dlclose(handle);
        return MakeError(
            ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
            FormatMessage("Module @ has version words @ and @",
                          {path, std::to_string(info->version0), std::to_string(info->version1)}));
    }
    auto module = std::make_unique<LoadedModule>();
    module->path = path;
    module->handle = handle;
    module->info = info;
    module->yieldDelegate = delegate;
    module->withheld = withheldInterfaces;
    LoadedModule* m = module.get();
    _modules.push_back(std::move(module));
    BindModule(*m, withheldInterfaces);
    Result<void> defined = RunDefinitions(*m);
    if (defined.IsError()) {
        // The error may point into the library: word it before the library goes away.
        std::string why = ErrorToString(defined.GetErrorPointer());
        defined = OK;
        UnloadModule(m);
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         FormatMessage("Module @ failed to start: @", {path, why}));
    }
    return m;
}

void Host::UnloadModule(LoadedModule* module) {
    if (!module) return;
    ClearCurrentError();
    for (auto it = module->definitionsRun.rbegin(); it != module->definitionsRun.rend(); ++it) {
        EntityBase* r = *it;
        if (r->GetType() == EntityBase::TYPE::CLASS) {
            auto* cls = static_cast<ClassRecord*>(r);
            if (cls->unregisterFunc) cls->unregisterFunc(cls);
        } else if (r->GetType() == EntityBase::TYPE::INITIALIZATION) {
            auto* init = static_cast<InitializationRecord*>(r);
            if (init->free) init->free();
        }
    }
    module->definitionsRun.clear();
    RemoveDeclaredKeys(*module->info);
    // The interfaces the module implements go with it: other binaries' slots bound to them
    // answer with their stubs again, and a later load of the module binds them anew.
    const std::map<std::string, std::set<void*>> gone = ImplementedFunctions(*module->info);
    UnregisterImplementations(*_state, gone);
    for (auto& other : _modules) {
        if (other.get() == module) continue;
        ForEachUnit(*other->info, [&](TranslationUnitRecord& unit) {
            ForEachRecord(unit, [&](EntityBase& r) {
                if (r.GetType() != EntityBase::TYPE::NONVIRTUAL_INTERFACE) return;
                auto& nv = static_cast<NonVirtualInterfaceRecord&>(r);
                auto functions = gone.find(std::string(nv.id.View()));
                if (!nv.slots || !nv.stubFiller || functions == gone.end()) return;
                for (Int i = 0; i < nv.count; ++i) {
                    if (functions->second.count(nv.slots[i])) nv.slots[i] = nv.stubFiller(&nv, i);
                }
            });
        });
    }
    ForEachUnit(*module->info, [&](TranslationUnitRecord& unit) {
        ForEachRecord(unit, [&](EntityBase& r) {
            if (r.GetType() == EntityBase::TYPE::DATATYPE) {
                RemoveDataTypeOfRecord(static_cast<DataTypeRecord&>(r));
            } else if (r.GetType() == EntityBase::TYPE::REGISTRY) {
                RemoveRegistryIfEmpty(r.id);
            }
        });
    });
    ClearCurrentError();
    if (module->handle) dlclose(module->handle);
    auto it = std::find_if(_modules.begin(), _modules.end(),
                           [&](const auto& m) { return m.get() == module; });
    if (it != _modules.end()) _modules.erase(it);
}

}  // namespace quorv::host
