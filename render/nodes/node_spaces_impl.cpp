// The node space base class, the default material exchange with its description cache and
// the node space helpers. Space objects live in the host registry
// "net.quorv.nodes.registry.materialnodespaces", keyed by space id (= the id of the space's
// class), so that every module registers and finds them the same way.
#include "quorv/graphlib.h"
#include "render/nodes/node_spaces.h"

namespace quorv::nodes {

InterfaceRecord g_nodeSpaceInterfaceRecord;

namespace {

// ---- node space base ------------------------------------------------------------------------

struct NodeSpaceBaseImpl {
    // Copies share both references: a copy notifies the source's observers.
    Ref<RaiiObservable<const DataDictionary&>> _observable;
    DataDictionary _data;

    // A space is rebuilt by the module that brings it at every start; a stored one would name
    // classes of another run.
    static Result<void> DescribeIO(DescribeStreamObject*) {
        return MakeErrorWithId(UNSUPPORTEDOPERATION_ERROR_ID, QUORV_SOURCE_LOCATION,
                               "Can't serialize node spaces.");
    }

    // The value under `key`, empty when there is none. A present value whose copy finds no
    // memory is out of memory: taken for a missing one, Init would replace what the space gave.
    static Result<Data> Present(const DataDictionary& d, const char* key) {
        const DataDictionaryObject* o = d.GetReadable();
        const DataDictionaryKey k{LiteralId(key)};
        Data value;
        if (DataDictionaryInterface::GetData(o, k, &value)) return value;
        if (DataDictionaryInterface::GetData(o, k, nullptr)) return OutOfMemoryError();
        return Data();
    }

    Result<void> Init(const DataDictionary& data) {
        // 1. Store, and take the id of this object's class.
        _data = data;
        const LiteralId classId = GetClassIdOf(InstanceOfState(this));
        const Id spaceId = Id::Intern(classId.View());
        const Id viewport = Id::Intern(VIEWPORTMATERIAL_ID);
        if (spaceId.IsEmpty() || viewport.IsEmpty()) return OutOfMemoryError();
        const std::string spaceText(spaceId.View());
        // 2. The space id is always the class id, whatever the caller gave.
        QUORV_RETURN_IF_ERROR(_data.Set(SpaceIdKey(), spaceId));
        // 3. A missing or empty name becomes the text of the id.
        Result<Data> name = Present(_data, nodespacekey::SPACENAME);
        if (name.IsError()) return name.GetError();
        const std::string* given = name.GetValue().Get<std::string>();
        if (!given || given->empty()) QUORV_RETURN_IF_ERROR(_data.Set(SpaceNameKey(), spaceText));
        // 4. No exchange class (or one with an empty id): the default, for the viewport bundle.
        Result<Data> exchange = Present(_data, nodespacekey::MATERIALEXCHANGECLASS);
        if (exchange.IsError()) return exchange.GetError();
        ClassObject* const* exchangeClass = exchange.GetValue().Get<ClassObject*>();
        if (!exchangeClass || !*exchangeClass || ClassInterface::GetId(*exchangeClass).IsEmpty()) {
            Result<Data> specified = Present(_data, nodespacekey::MATERIALEXCHANGEBUNDLEIDS);
            if (specified.IsError()) return specified.GetError();
            const IdArray* ids = specified.GetValue().Get<IdArray>();
            if (ids && !ids->empty()) {
                // The text speaks of the fallback class that is "defined": it fires when the
                // space named none, so that the default takes over. It goes to the host's
                // warning output: a person fixes the space, no caller acts on it.
                WarningInterface::WarningOutput(
                    FormatMessage("Warning for @: overwriting specified "
                                  "NODESPACE::MATERIALEXCHANGEBUNDLEIDS because fallback "
                                  "NODESPACE::MATERIALEXCHANGECLASS is defined",
                                  {spaceText})
                        .c_str());
            }
            IdArray bundles;
            try {
                bundles.push_back(viewport);
            } catch (...) {
                return OutOfMemoryError();
            }
            QUORV_RETURN_IF_ERROR(_data.Set(BundleIdsKey(), bundles));
            Result<const ClassObject*> fallback =
                FindClass(LiteralId(MATERIALEXCHANGE_REGISTRY_ID),
                          LiteralId(MATERIALEXCHANGE_DEFAULT_CLASS_ID));
            if (fallback.IsError()) return fallback.GetError();
            QUORV_RETURN_IF_ERROR(
                _data.Set(ExchangeClassKey(), const_cast<ClassObject*>(fallback.GetValue())));
        }
        // 5. The one space built into the base class gets its two bundles, with no warning.
        if (spaceText == BUILTIN_SPACE_ID) {
            const Id builtin = Id::Intern(BUILTIN_SPACE_BUNDLE_ID);
            if (builtin.IsEmpty()) return OutOfMemoryError();
            IdArray bundles;
            try {
                bundles = {viewport, builtin};
            } catch (...) {
                return OutOfMemoryError();
            }
            QUORV_RETURN_IF_ERROR(_data.Set(BundleIdsKey(), bundles));
        }
        // 6. The observer list.
        auto observable = RaiiObservable<const DataDictionary&>::Create();
        if (observable.IsError()) return observable.GetError();
        _observable = observable.GetValue();
        return OK;
    }

    DataDictionary GetData() { return _data; }

    Result<ObserverHandleRef> AddDataChangedObserver(DataChangedObserver observer, Bool callNow) {
        // Before Init there is no list to add to.
        if (!_observable) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Illegal state: the node space is not initialised");
        }
        if (!callNow) return _observable->Add(std::move(observer));
        // Read before the add: a SetData in between reaches neither the callNow call nor this
        // observer. Kept so.
        const DataDictionary data = GetData();
        const std::tuple<const DataDictionary&> present{data};
        return _observable->Add(std::move(observer), &present);
    }

    void SetData(const DataDictionary& data) {
        _data = data;
        const DataDictionary now = _data;
        if (_observable) _observable->Notify(now);
    }

    static const DictionaryKey<Id>& SpaceIdKey() {
        static const DictionaryKey<Id> k(nodespacekey::SPACEID);
        return k;
    }
    static const DictionaryKey<std::string>& SpaceNameKey() {
        static const DictionaryKey<std::string> k(nodespacekey::SPACENAME);
        return k;
    }
    static const DictionaryKey<ClassObject*>& ExchangeClassKey() {
        static const DictionaryKey<ClassObject*> k(nodespacekey::MATERIALEXCHANGECLASS);
        return k;
    }
    static const DictionaryKey<IdArray>& BundleIdsKey() {
        static const DictionaryKey<IdArray> k(nodespacekey::MATERIALEXCHANGEBUNDLEIDS);
        return k;
    }
};

// ---- the description cache of the default exchange --------------------------------------------

struct MaterialParameterCache {
    // Set by the module's start step (a load of a module whose storage survived an earlier
    // unload starts active too); cleared for good by the unload message or the free step.
    Bool _isActive = true;
    SpinLock lock;
    std::vector<std::pair<Id, DataDictionary>, SystemAllocator<std::pair<Id, DataDictionary>>> map;
};

MaterialParameterCache& Cache() {
    static MaterialParameterCache cache;
    return cache;
}

Result<DataDictionary> BuildParameters(const Id& materialType) {
    const std::string type(materialType.View());
    Result<DescriptionObject*> loaded = DataDescriptionDatabaseInterface::LoadDescription(
        LiteralId(type.c_str()), LiteralId("data"), nullptr);
    if (loaded.IsError()) return loaded.GetError();
    const Description description(loaded.GetValue());
    Result<std::vector<DataDictionary>> entries =
        DataDescriptionInterface::GetEntries(description.Get());
    if (entries.IsError()) return entries.GetError();
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created.GetError();
    DataDictionary result = created.GetValue();
    const Id input = Id::Intern("input");
    const Id none = Id::Intern("none");
    for (const DataDictionary& entry : entries.GetValue()) {
        if (!(entry.Get<Id>(descriptionkey::CLASSIFICATION, none) == input)) continue;
        const Id identifier = entry.Get<Id>(descriptionkey::IDENTIFIER, Id());
        Data value = entry.GetData(descriptionkey::DEFAULTVALUE);
        if (value.IsEmpty()) {
            const std::string typeId(entry.Get<Id>(descriptionkey::DATATYPE, Id()).View());
            const DataType* t = DataTypeLibInterface::GetRuntimeDataType(typeId.c_str());
            if (!t) {
                // No default and a type id the host doesn't know: nothing to make a value of.
                // The error names both, so the description can be fixed.
                return MakeError(
                    ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                    FormatMessage("Illegal argument: Unknown data type @ of parameter @",
                                  {typeId, identifier.View()}));
            }
            value = Data::Make(t, nullptr);
            if (value.IsEmpty()) return OutOfMemoryError();
        }
        PackedMaterialParameter packed{std::move(value), true, nullptr};
        Data stored = Data::Of(packed);
        if (stored.IsEmpty()) return OutOfMemoryError();
        // Of two entries with one identifier the later wins (the host keeps the later in the
        // earlier one's place; the set here would replace too). Entries without identifier
        // never get here: the host refuses the description.
        const std::string key(identifier.View());
        QUORV_RETURN_IF_ERROR(result.SetData(LiteralId(key.c_str()), stored));
    }
    return result;
}

// ---- the default exchange -----------------------------------------------------------------

struct MaterialExchangeDefault {
    char unused = 0;

    Result<void> Initialize(const ObjectRef&, const Id& materialType) {
        static const Id viewportMaterialId = Id::Intern(VIEWPORTMATERIAL_ID);
        if (materialType == viewportMaterialId) return OK;
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            "Illegal argument: Condition materialType == viewportMaterialId not fulfilled. ");
    }

    Result<DataDictionary> GetMaterialParameters() {
        static const Id viewportMaterialId = Id::Intern(VIEWPORTMATERIAL_ID);
        MaterialParameterCache& cache = Cache();
        // The first call loads under the lock, so a second thread waits for it.
        ScopedSpinLock lock(cache.lock);
        if (!cache._isActive) {
            return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                             "Illegal state: Condition _isActive == true not fulfilled. ");
        }
        for (const auto& [type, parameters] : cache.map) {
            if (type == viewportMaterialId) return parameters;
        }
        Result<DataDictionary> built = BuildParameters(viewportMaterialId);
        if (built.IsError()) return built.GetError();
        try {
            cache.map.emplace_back(viewportMaterialId, built.GetValue());
        } catch (...) {
            return OutOfMemoryError();
        }
        return built;
    }

    Result<void> ConfigureTextureProviderRequest(const PreviewImageRequestInterface::Ref&) {
        return OK;
    }
};

// ---- helpers ---------------------------------------------------------------------------------

DataDictionary GetNodeSpaceData(const Id& spaceId) {
    const std::string id(spaceId.View());
    Data entry;
    if (!RegistryInterface::FindEntryValue(LiteralId(NODESPACE_REGISTRY_ID), LiteralId(id.c_str()),
                                           &entry)) {
        return {};
    }
    const ObjectRef* object = entry.Get<ObjectRef>();
    if (!object) return {};
    Result<NodeSpaceInterface::Ref> space = NodeSpaceInterface::Ref::Cast(*object);
    if (space.IsError()) return {};
    return space.GetValue().GetData();
}

Result<DataDictionary> LoadSpaceDescription(const Id& descriptionId) {
    if (descriptionId.IsEmpty()) return DataDictionary();
    // Texts missing in the current language come from "en" (the host's database falls back).
    Result<LanguageObject*> language = ResourceInterface::GetCurrentLanguage();
    if (language.IsError()) return language.GetError();
    const std::string id(descriptionId.View());
    Result<DescriptionObject*> loaded = DataDescriptionDatabaseInterface::LoadDescription(
        LiteralId(id.c_str()), LiteralId("string"), language.GetValue());
    LanguageInterface::Free(language.GetValue());
    if (loaded.IsError()) return loaded.GetError();
    const Description description(loaded.GetValue());
    // No name entry gives an empty name.
    const DataDictionary entry = DataDescriptionInterface::GetEntry(
        description.Get(), LiteralId("net.quorv.object.base.name"));
    const std::string name =
        entry.Get<std::string>(descriptionkey::TRANSLATEDSTRING, std::string());
    Result<DataDictionary> created = DataDictionary::Create();
    if (created.IsError()) return created.GetError();
    DataDictionary result = created.GetValue();
    QUORV_RETURN_IF_ERROR(result.Set(NodeSpaceBaseImpl::SpaceNameKey(), name));
    return result;
}

const NodeSpaceHelpersInterface::Slots g_helperSlots{
    .GetNodeSpaceData = &GetNodeSpaceData,
    .LoadDescription = &LoadSpaceDescription,
};

// ---- records ---------------------------------------------------------------------------------

ModuleUnit g_unit(__FILE__, {{&WarningInterface::record, "quorv/datadescription.h"},
                             {&DataDescriptionDatabaseInterface::record, "quorv/datadescription.h"},
                             {&ResourceInterface::record, "quorv/resource.h"},
                             {&GraphLibInterface::record, "quorv/graphlib.h"},
                             {&RegistryInterface::record, "quorv/services.h"}});
RegistryRecord g_exchangeClasses;
RegistryRecord g_spaceClasses;
RegistryRecord g_spaceObjects;
const bool g_registriesDefined =
    (DefineRegistry(g_exchangeClasses, LiteralId(MATERIALEXCHANGE_REGISTRY_ID), g_unit, __FILE__,
                    0),
     DefineRegistry(g_spaceClasses, LiteralId(NODESPACE_CLASS_REGISTRY_ID), g_unit, __FILE__, 0),
     DefineRegistry(g_spaceObjects, LiteralId(NODESPACE_REGISTRY_ID), g_unit, __FILE__, 0), true);
InterfaceRecord g_exchangeInterfaceRecord;
const bool g_published =
    (PublishVirtualInterface<NodeSpaceInterface>(g_nodeSpaceInterfaceRecord, g_unit),
     PublishVirtualInterface<MaterialExchangeInterface>(g_exchangeInterfaceRecord, g_unit), true);
SimpleClass<MaterialExchangeDefault, MaterialExchangeInterface> g_exchangeClass(
    g_unit, MATERIALEXCHANGE_DEFAULT_CLASS_ID, MATERIALEXCHANGE_REGISTRY_ID, __FILE__);
ComposedClass<NodeSpaceBaseImpl, NodeSpaceInterface> g_baseClass(g_unit, NODESPACE_BASE_CLASS_ID,
                                                                 NODESPACE_CLASS_REGISTRY_ID, {},
                                                                 __FILE__);
DataTypeRecord g_packedType;
const bool g_packedDefined =
    (DefineRecordDataType<PackedMaterialParameter, COMPARISON::NONE>(
         g_packedType, "quorv::nodes::PackedMaterialParameter", g_unit, __FILE__),
     true);

// The module's start: the cache is active and empty (within one load its deactivation is
// final), and the attribute that graphs may carry is declared. A host without graph services
// has no graphs to carry it, so its unresolved answer is no failure.
Result<void> StartNodeSpaces() {
    StartMaterialParameterCache();
    Result<void> declared = GraphLibInterface::CreateAttribute(
        LiteralId(nodespacekey::NODESPACECONTEXT), DataTypeIdOf<DataDictionary>::id);
    if (declared.IsError() && declared.GetErrorPointer()->kind == ERRORKIND::UNRESOLVED) return OK;
    return declared;
}

// The free step releases the cached dictionaries while the module's data type of their values
// is still there.
InitializationRecord g_initialization;
const bool g_initializationDefined =
    (DefineInitialization(g_initialization, __FILE__, &StartNodeSpaces,
                          &DeactivateMaterialParameterCache, g_unit),
     true);

NonVirtualInterfaceRecord g_helperNames;
NonVirtualInterfaceRecord g_helperImplementation;
char g_helperNameRun[NodeSpaceHelpersInterface::NAME_RUN_SIZE];
const bool g_helpersDefined = [] {
    g_helperNames.id = LiteralId(NodeSpaceHelpersInterface::INTERFACE_ID);
    g_helperNames.methodNames =
        BuildSlotNameRun(NodeSpaceHelpersInterface::Describe(), g_helperNameRun);
    g_helperNames.returnKinds = NodeSpaceHelpersInterface::Describe().returnKinds;
    g_helperNames.count = NodeSpaceHelpersInterface::COUNT;
    DefineInterfaceImplementation(g_helperImplementation, g_helperNames, g_unit, __FILE__, 0);
    g_helperImplementation.implementation = reinterpret_cast<void* const*>(&g_helperSlots);
    return true;
}();

}  // namespace

namespace {

// Empties the cache and sets its flag; the dictionaries are released after the lock.
void ResetCache(Bool active) {
    MaterialParameterCache& cache = Cache();
    decltype(cache.map) released;
    ScopedSpinLock lock(cache.lock);
    cache._isActive = active;
    released.swap(cache.map);
}

}  // namespace

void DeactivateMaterialParameterCache() { ResetCache(false); }

void StartMaterialParameterCache() { ResetCache(true); }

}  // namespace quorv::nodes
