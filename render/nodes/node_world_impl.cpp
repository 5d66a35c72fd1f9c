// `NodeWorldImpl`: the three process-wide states of the node world, each made at first use
// and held in a reference word whose lowest bit is its lock, released by the free step.
#include <memory>

#include "quorv/lockedref.h"
#include "quorv/rwlock.h"
#include "quorv/synchronizedhashmap.h"
#include "render/nodes/node_spaces.h"
#include "render/nodes/node_world.h"

namespace quorv::nodes {

namespace {

struct IdHash {
    UInt operator()(const Id& id) const { return static_cast<UInt>(id.Hash()); }
};
struct IdEqual {
    bool operator()(const Id& a, const Id& b) const { return a == b; }
};

// Renderer names live as long as the module: a name pointer read without the lock stays
// valid whatever a writer does next, so unlocked readers are race-free. A map entry is never
// removed either (the synchronised map keeps entries put); erasing clears its name pointer.
// Each name is published whole, once, by compare-and-swap: the text is never written after
// another thread can see it. The pool goes when the module's storage does (after the free step
// released every renderer state, when no call is in flight).
struct NameSlot {
    std::atomic<const std::string*> text{nullptr};
    NameSlot() = default;
    NameSlot(const NameSlot&) = delete;
    NameSlot& operator=(const NameSlot&) = delete;
    ~NameSlot() { delete text.load(std::memory_order_relaxed); }
};
using NamePool = SynchronizedHashMap<Id, NameSlot, IdHash, IdEqual>;
NamePool& Names() {
    static NamePool pool;
    return pool;
}

struct RendererEntry {
    std::atomic<const std::string*> name{nullptr};  // null: erased
};

struct NodeWorldRegistryState {
    using Observable = RaiiObservable<const RendererRegistryObserverValue*, Int>;
    Ref<Observable> observable;
    SynchronizedHashMap<Id, RendererEntry, IdHash, IdEqual> renderers;
    RWLock lock;

    Result<void> Start() {
        Result<RWLock> made = RWLock::Create(QUORV_SOURCE_LOCATION);
        if (made.IsError()) return made.GetError();
        lock = std::move(made.GetValue());
        return OK;
    }
};

// One notification of the preferences observers: the flags and both pairs of dictionaries, so
// that each observer's wrapper runs its watch test. `always` marks the callNow call.
struct PreferencesChange {
    Bool always = false;
    Bool preferencesChanged = false;
    Bool renderDataChanged = false;
    const DataDictionary* oldPreferences = nullptr;
    const DataDictionary* newPreferences = nullptr;
    const DataDictionary* oldRenderData = nullptr;
    const DataDictionary* newRenderData = nullptr;
};

struct ActivePreferencesState {
    using Observable = RaiiObservable<const PreferencesChange&>;
    Ref<Observable> observable;
    SpinLock lock;
    DataDictionary preferences;
    DataDictionary renderData;

    Result<void> Start() { return OK; }
};

struct ActiveNodeSpaceState {
    using Observable = RaiiObservable<const Id&>;
    Ref<Observable> observable;
    Id activeSpaceId;
    SpinLock lock;

    Result<void> Start() { return OK; }
};

LockBitWord g_registryWord;
LockBitWord g_preferencesWord;
LockBitWord g_nodeSpaceWord;

// The state in `word`, made when the word is null. The word holds one reference.
template <typename S>
Result<Ref<S>> GetState(LockBitWord& word, const char* invalid) {
    std::uintptr_t w = word.Acquire();
    if (w == 0) {
        Result<Ref<S>> made = NewCounted<S>();
        if (made.IsOk()) {
            auto observable = S::Observable::Create();
            if (observable.IsOk() && made.GetValue()->Start().IsOk()) {
                made.GetValue()->observable = observable.GetValue();
                w = reinterpret_cast<std::uintptr_t>(made.GetValue().Disconnect());
            }
        }
        if (w == 0) {
            word.Release(0);
            if (made.IsError()) return made.GetError();
            return OutOfMemoryError();
        }
    }
    Ref<S> state(reinterpret_cast<S*>(w));
    word.Release(w);
    if (!state) return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, invalid);
    return state;
}

Result<Ref<NodeWorldRegistryState>> Registry() {
    return GetState<NodeWorldRegistryState>(g_registryWord, "Illegal state: Invalid node world.");
}
Result<Ref<ActivePreferencesState>> Preferences() {
    return GetState<ActivePreferencesState>(g_preferencesWord,
                                            "Illegal state: Invalid active preferences.");
}
Result<Ref<ActiveNodeSpaceState>> NodeSpace() {
    return GetState<ActiveNodeSpaceState>(g_nodeSpaceWord,
                                          "Illegal state: Invalid active node space.");
}

template <typename S>
void ReleaseState(LockBitWord& word) {
    std::uintptr_t w = word.Acquire();
    word.Release(0);
    RemoveReference(reinterpret_cast<S*>(w));
}

Result<ObserverHandleRef> AddRendererRegistryObserver(RendererObserver observer, Bool callNow) {
    Result<Ref<NodeWorldRegistryState>> got = Registry();
    if (got.IsError()) return got.GetError();
    NodeWorldRegistryState& state = *got.GetValue();
    if (!callNow) return state.observable->Add(std::move(observer));
    // The read lock is taken and released before the map is read; the map itself is read
    // unlocked, which the synchronised map and the permanent names make safe. A renderer that
    // comes or goes between this read and the add below is missed by this observer: kept so.
    state.lock.ReadLock();
    state.lock.ReadUnlock();
    std::vector<RendererRegistryObserverValue, SystemAllocator<RendererRegistryObserverValue>> all;
    try {
        state.renderers.ForEach([&](const Id& id, RendererEntry& e) {
            if (e.name.load(std::memory_order_acquire)) all.push_back({id, true});
        });
    } catch (...) {
        return OutOfMemoryError();
    }
    const std::tuple<const RendererRegistryObserverValue*, Int> present{
        all.data(), static_cast<Int>(all.size())};
    return state.observable->Add(std::move(observer), &present);
}

Result<std::string> GetRendererName(const Id& renderer) {
    Result<Ref<NodeWorldRegistryState>> got = Registry();
    if (got.IsError()) return got.GetError();
    NodeWorldRegistryState& state = *got.GetValue();
    // Read lock taken and released, the map read unlocked (see AddRendererRegistryObserver).
    state.lock.ReadLock();
    state.lock.ReadUnlock();
    const RendererEntry* e = state.renderers.Find(renderer);
    const std::string* name = e ? e->name.load(std::memory_order_acquire) : nullptr;
    try {
        return name ? *name : std::string();
    } catch (...) {
        return OutOfMemoryError();
    }
}

// The value `entry` watches in `d`: lent by the dictionary, so that nothing is copied and no
// sub-dictionary is counted (a host that cannot lend copies into `spare`). Null when absent,
// and when the sub-dictionary is missing or not a dictionary.
const Data* WatchedValue(const WatchedEntry& entry, const DataDictionary& d, Data (&spare)[2]) {
    if (entry.first == -1) return d.Find(entry.second, &spare[0]);
    const DataDictionary* sub = d.GetPointer<DataDictionary>(entry.first, &spare[1]);
    return sub ? sub->Find(entry.second, &spare[0]) : nullptr;
}

bool ChangedEntry(const WatchedEntry& entry, const DataDictionary& oldDictionary,
                  const DataDictionary& newDictionary) {
    Data spareNow[2], spareBefore[2];
    const Data* now = WatchedValue(entry, newDictionary, spareNow);
    if (!now) return false;  // a value the new dictionary lacks counts as unchanged
    // A value absent before, or of a type that can't compare, counts as changed.
    const Data* before = WatchedValue(entry, oldDictionary, spareBefore);
    return !before || !IsEqualData(*before, *now);
}

}  // namespace

bool IsWatchedChange(const WatchList& preferences, const WatchList& renderData,
                     Bool preferencesChanged, Bool renderDataChanged,
                     const DataDictionary& oldPreferences, const DataDictionary& newPreferences,
                     const DataDictionary& oldRenderData, const DataDictionary& newRenderData) {
    if (preferences.empty() && renderData.empty()) return true;
    // With one list empty only the other can call.
    if (preferencesChanged) {
        for (const WatchedEntry& e : preferences)
            if (ChangedEntry(e, oldPreferences, newPreferences)) return true;
    }
    if (renderDataChanged) {
        for (const WatchedEntry& e : renderData)
            if (ChangedEntry(e, oldRenderData, newRenderData)) return true;
    }
    return false;
}

namespace {

Result<ObserverHandleRef> AddActivePreferencesObserver(PreferencesObserver observer, Bool callNow,
                                                       const WatchList& preferences,
                                                       const WatchList& renderData) {
    Result<Ref<ActivePreferencesState>> got = Preferences();
    if (got.IsError()) return got.GetError();
    ActivePreferencesState& state = *got.GetValue();
    // The observer is wrapped so that it is called only when a watched entry changed; the
    // watch lists travel with it.
    struct Watching {
        PreferencesObserver observer;
        WatchList preferences, renderData;
    };
    Result<Ref<Watching>> watching = NewCounted<Watching>();
    if (watching.IsError()) return watching.GetError();
    try {
        watching.GetValue()->observer = std::move(observer);
        watching.GetValue()->preferences = preferences;
        watching.GetValue()->renderData = renderData;
    } catch (...) {
        return OutOfMemoryError();
    }
    Ref<Watching> w = watching.GetValue();
    auto wrapped =
        Delegate<void(const PreferencesChange&)>::Create([w](const PreferencesChange& c) {
            if (c.always ||
                IsWatchedChange(w->preferences, w->renderData, c.preferencesChanged,
                                c.renderDataChanged, *c.oldPreferences, *c.newPreferences,
                                *c.oldRenderData, *c.newRenderData)) {
                w->observer(*c.newPreferences, *c.newRenderData);
            }
        });
    if (wrapped.IsError()) return wrapped.GetError();
    if (!callNow) return state.observable->Add(wrapped.GetValue());
    // A change stored between this read and the add reaches neither the callNow call nor this
    // observer: kept so.
    state.lock.Lock();
    DataDictionary p = state.preferences, r = state.renderData;
    state.lock.Unlock();
    PreferencesChange now;
    now.always = true;
    now.newPreferences = &p;
    now.newRenderData = &r;
    const std::tuple<const PreferencesChange&> present{now};
    return state.observable->Add(wrapped.GetValue(), &present);
}

Result<ObserverHandleRef> AddActiveNodeSpaceObserver(NodeSpaceObserver observer, Bool callNow) {
    Result<Ref<ActiveNodeSpaceState>> got = NodeSpace();
    if (got.IsError()) return got.GetError();
    ActiveNodeSpaceState& state = *got.GetValue();
    if (!callNow) return state.observable->Add(std::move(observer));
    // A change between this read and the add is missed by this observer: kept so.
    state.lock.Lock();
    const Id id = state.activeSpaceId;
    state.lock.Unlock();
    const std::tuple<const Id&> present{id};
    return state.observable->Add(std::move(observer), &present);
}

Result<void> SetRenderer(const Id& renderer, const std::string* name) {
    Result<Ref<NodeWorldRegistryState>> got = Registry();
    if (got.IsError()) return got.GetError();
    NodeWorldRegistryState& state = *got.GetValue();
    {
        ScopedWriteLock lock(state.lock);
        if (name) {
            Result<RendererEntry*> e = state.renderers.FindOrCreate(renderer);
            if (e.IsError()) return e.GetError();
            e.GetValue()->name.store(name, std::memory_order_release);
        } else if (RendererEntry* e = state.renderers.Find(renderer)) {
            e->name.store(nullptr, std::memory_order_release);
        }
    }
    // An unknown renderer erased is still reported (inserted false).
    const RendererRegistryObserverValue value{renderer, name != nullptr};
    state.observable->Notify(&value, 1);
    return OK;
}

// The permanent copy of a renderer name: made once per text, never changed after it is
// published, never freed.
Result<const std::string*> PermanentName(const std::string& name) {
    const Id key = Id::Intern(name);
    if (key.IsEmpty() && !name.empty()) return OutOfMemoryError();
    Result<NameSlot*> slot = Names().FindOrCreate(key);
    if (slot.IsError()) return slot.GetError();
    std::atomic<const std::string*>& published = slot.GetValue()->text;
    const std::string* present = published.load(std::memory_order_acquire);
    if (present) return present;
    std::unique_ptr<std::string> made;
    try {
        made = std::make_unique<std::string>(name);
    } catch (...) {
        return OutOfMemoryError();
    }
    // Of two threads that bring one new name, the second keeps the first one's copy.
    if (!published.compare_exchange_strong(present, made.get(), std::memory_order_acq_rel,
                                           std::memory_order_acquire)) {
        return present;
    }
    return made.release();
}

Error WrongData(const Data& data, const char* expected) {
    return MakeError(
        ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
        FormatMessage("Illegal state: Data type mismatch: @ expected, @ found",
                      {expected, data.GetType() ? std::string(data.GetType()->id.View())
                                                : std::string("nothing")}));
}

Result<void> StorePreferences(const Data& data) {
    const DataDictionary* message = data.Get<DataDictionary>();
    if (!message) return WrongData(data, DataTypeIdOf<DataDictionary>::id);
    const Bool preferencesChanged = message->Get<Bool>(preferenceskey::PREFERENCES_CHANGED, false);
    const Bool renderDataChanged = message->Get<Bool>(preferenceskey::RENDERDATA_CHANGED, false);
    if (!preferencesChanged && !renderDataChanged) return OK;
    Result<Ref<ActivePreferencesState>> got = Preferences();
    if (got.IsError()) return got.GetError();
    ActivePreferencesState& state = *got.GetValue();
    // Both are stored even if one flag is set; a missing dictionary stores the empty one.
    DataDictionary newPreferences =
        message->Get<DataDictionary>(preferenceskey::PREFERENCES, DataDictionary());
    DataDictionary newRenderData =
        message->Get<DataDictionary>(preferenceskey::RENDERDATA, DataDictionary());
    state.lock.Lock();
    DataDictionary oldPreferences = std::exchange(state.preferences, newPreferences);
    DataDictionary oldRenderData = std::exchange(state.renderData, newRenderData);
    state.lock.Unlock();
    PreferencesChange change;
    change.preferencesChanged = preferencesChanged;
    change.renderDataChanged = renderDataChanged;
    change.oldPreferences = &oldPreferences;
    change.newPreferences = &newPreferences;
    change.oldRenderData = &oldRenderData;
    change.newRenderData = &newRenderData;
    state.observable->Notify(change);
    return OK;
}

Result<void> StoreNodeSpace(const Data& data) {
    const Id* id = data.Get<Id>();
    if (!id) return WrongData(data, DataTypeIdOf<Id>::id);
    Result<Ref<ActiveNodeSpaceState>> got = NodeSpace();
    if (got.IsError()) return got.GetError();
    ActiveNodeSpaceState& state = *got.GetValue();
    state.lock.Lock();
    const bool differs = !(state.activeSpaceId == *id);
    state.activeSpaceId = *id;
    state.lock.Unlock();
    if (differs) state.observable->Notify(*id);
    return OK;
}

Result<void> QuorvMessage(const Id& message, const Data& data) {
    const std::string_view m = message.View();
    if (m == nodeworldmessage::RENDERERINSERTED) {
        const IdStringTuple* t = data.Get<IdStringTuple>();
        if (!t) return WrongData(data, DataTypeIdOf<IdStringTuple>::id);
        Result<const std::string*> name = PermanentName(t->second);
        if (name.IsError()) return name.GetError();
        return SetRenderer(t->first, name.GetValue());
    }
    if (m == nodeworldmessage::RENDERERERASED) {
        const Id* id = data.Get<Id>();
        if (!id) return WrongData(data, DataTypeIdOf<Id>::id);
        return SetRenderer(*id, nullptr);
    }
    if (m == nodeworldmessage::PREFERENCESCHANGED) return StorePreferences(data);
    if (m == nodeworldmessage::NODESPACECHANGED) return StoreNodeSpace(data);
    if (m == nodeworldmessage::UNLOAD) {
        DeactivateMaterialParameterCache();
        return OK;
    }
    return OK;  // unknown messages are ignored
}

Id GetActiveNodeSpace() {
    Result<Ref<ActiveNodeSpaceState>> got = NodeSpace();
    if (got.IsError()) return Id();
    got.GetValue()->lock.Lock();
    const Id id = got.GetValue()->activeSpaceId;
    got.GetValue()->lock.Unlock();
    return id;
}

Result<void> StartNodeWorld() { return OK; }

const NodeWorldInterface::Slots g_slots{
    .AddRendererRegistryObserver = &AddRendererRegistryObserver,
    .GetRendererName = &GetRendererName,
    .AddActivePreferencesObserver = &AddActivePreferencesObserver,
    .AddActiveNodeSpaceObserver = &AddActiveNodeSpaceObserver,
    .QuorvMessage = &QuorvMessage,
    .GetActiveNodeSpace = &GetActiveNodeSpace,
};

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
InitializationRecord g_initialization;
char g_nameRun[NodeWorldInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(NodeWorldInterface::INTERFACE_ID);
    g_interfaceNames.methodNames = BuildSlotNameRun(NodeWorldInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = NodeWorldInterface::Describe().returnKinds;
    g_interfaceNames.count = NodeWorldInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = reinterpret_cast<void* const*>(&g_slots);
    DefineInitialization(g_initialization, __FILE__, &StartNodeWorld, &FreeNodeWorld, g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

// The free step: each word to null, its state released; a later message makes it anew.
void FreeNodeWorld() {
    ReleaseState<NodeWorldRegistryState>(g_registryWord);
    ReleaseState<ActivePreferencesState>(g_preferencesWord);
    ReleaseState<ActiveNodeSpaceState>(g_nodeSpaceWord);
}

}  // namespace quorv::nodes
