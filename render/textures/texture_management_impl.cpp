// The module's cache of textures: three synchronised maps (picture variants, picture probes,
// relative path translations), each entry loaded once behind a guard word, and the flush rules.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "quorv/entity.h"
#include "quorv/synchronizedhashmap.h"
#include "render/textures/texture_impl.h"

namespace quorv {

/// Key of one loaded variant of a picture.
struct TextureUrl {
    Ref<LayerSetObject> layerSet;
    Url url;
    UInt urlHash = 0;  // of the url's text, computed once per request
    UInt32 flags = 0;
    Float64 time = 0.0;
};

/// One loaded variant: the texture, guarded by a spin bit in the lowest bit of its word for
/// the moment of copying, and the guard word of its load.
struct TextureData {
    std::atomic<UInt> texture{0};
    OnceGuard loaded;
};

/// What a probe of a picture file found.
struct TextureInfo {
    OnceGuard loaded;
    Int width = 0;
    Int height = 0;
    Float64 duration = 0.0;
    Float64 fps = 0.0;
    Bool isRegularFloatingPoint = false;
};

/// The resolve of one relative path: the search paths it was found with, and the answer.
struct UrlTranslation {
    std::vector<Url> searchPaths;
    Url url;
    SpinLock lock;
};

namespace texturemanagement {

namespace {

constexpr UInt M = 0xbf58476d1ce4e5b9ull;

UInt TextHash(std::string_view text) {
    UInt h = 0xcbf29ce484222325ull;
    for (unsigned char c : text) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    return h;
}

UInt Bits(Float64 v) {
    UInt b;
    std::memcpy(&b, &v, sizeof(b));
    return b;
}

struct KeyHash {
    UInt operator()(const TextureUrl& k) const {
        const UInt a = k.layerSet ? LayerSetInterface::GetHashCode(k.layerSet.Get()) + 1 : 1;
        const UInt b = k.url.IsEmpty() ? 0 : k.urlHash * M;
        const UInt h = (M + M * (static_cast<UInt>(k.flags) + b) + a) * M + 1;
        const UInt t = Bits(k.time);
        const UInt x = t ^ (t >> 32);
        const UInt y = x ^ (x >> 12) ^ (x >> 20);
        const UInt z = y ^ (y >> 7) ^ (y >> 4);
        return h + z;
    }
};

struct KeyEqual {
    bool operator()(const TextureUrl& a, const TextureUrl& b) const {
        return a.url.Compare(b.url) == 0 && a.flags == b.flags &&
               LayerSetInterface::IsEqual(a.layerSet.Get(), b.layerSet.Get()) &&
               Bits(a.time) == Bits(b.time);
    }
};

struct UrlHash {
    UInt operator()(const Url& u) const { return TextHash(u.ToText()); }
};
struct UrlEqual {
    bool operator()(const Url& a, const Url& b) const { return a.Compare(b) == 0; }
};
struct TextHasher {
    UInt operator()(const std::string& s) const { return TextHash(s); }
};
struct TextEqual {
    bool operator()(const std::string& a, const std::string& b) const { return a == b; }
};

using DataMap = SynchronizedHashMap<TextureUrl, TextureData, KeyHash, KeyEqual>;
using InfoMap = SynchronizedHashMap<Url, TextureInfo, UrlHash, UrlEqual>;
using TranslationMap = SynchronizedHashMap<std::string, UrlTranslation, TextHasher, TextEqual>;

struct State {
    DataMap data{16};
    InfoMap infos{16};
    TranslationMap translations{16};
    std::atomic<UInt> observable{0};  // ObservableObject*, lowest bit a spin bit
};

State* g_state = nullptr;

// ---- spin bit words ---------------------------------------------------------------------------

UInt LockWord(std::atomic<UInt>& word) {
    SpinWaitRecord record;
    record.waitAddress = &word;
    for (;;) {
        UInt w = word.load(std::memory_order_relaxed);
        if ((w & 1) == 0 && word.compare_exchange_weak(w, w | 1, std::memory_order_acquire)) {
            SpinWaitEnd(record);
            return w;
        }
        SpinWaitStep(record);
    }
}

void UnlockWord(std::atomic<UInt>& word, UInt value) {
    word.store(value & ~UInt(1), std::memory_order_release);
}

// A new reference to the texture of an entry, or null.
TextureImpl* CopyTexture(TextureData& d) {
    const UInt w = LockWord(d.texture);
    auto* t = reinterpret_cast<TextureImpl*>(w);
    AddReference(t);
    UnlockWord(d.texture, w);
    return t;
}

void SetTexture(TextureData& d, TextureImpl* t) {
    const UInt old = LockWord(d.texture);
    UnlockWord(d.texture, reinterpret_cast<UInt>(t));
    RemoveReference(reinterpret_cast<TextureImpl*>(old));
}

Error RelativePathError(const Url& url) {
    const std::string text = url.ToText();
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                           "Could not load relative path", text);
}

Result<void> ProbeInfo(TextureInfo& info, const Url& url) {
    Result<ImageTextureObject*> r =
        ImageTextureInterface::Load(url.GetObject(), 0.0, imageids::STORAGE_VOXEL, nullptr);
    if (r.IsError()) return r.GetError();
    Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(r.GetValue());
    const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
    info.width = ImageInterface::GetWidth(image);
    info.height = ImageInterface::GetHeight(image);
    info.duration =
        ImageTextureInterface::GetFloatProperty(picture.Get(), imageids::PROPERTY_DURATION, 0.0);
    info.fps = ImageTextureInterface::GetFloatProperty(picture.Get(), imageids::PROPERTY_FPS, 0.0);
    // The same test as the texture's, on a probe texture that only holds the picture.
    TextureImpl probe;
    probe.image = picture;
    info.isRegularFloatingPoint = texture::IsRegularFloatingPointFormat(&probe);
    return OK;
}

void Notify() {
    if (!g_state) return;
    const UInt w = LockWord(g_state->observable);
    auto* o = reinterpret_cast<ObservableObject*>(w);
    AddReference(o);
    UnlockWord(g_state->observable, w);
    if (o) {
        Result<void> r = ObservableInterface::Notify(o, true);
        (void)r;
        RemoveReference(o);
    }
}

// Empties a data entry whose guard is done: 8 to 2, clear, 0.
void EmptyData(TextureData& d) {
    if (!d.loaded.ClaimDone()) {
        d.loaded.ResetFailed();
        return;
    }
    SetTexture(d, nullptr);
    d.loaded.Release();
}

void EmptyInfo(TextureInfo& info) {
    if (info.loaded.ClaimDone())
        info.loaded.Release();
    else
        info.loaded.ResetFailed();
}

Result<void> InitModuleData() {
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(State)), QUORV_SOURCE_LOCATION);
    if (!block) return OutOfMemoryError();
    g_state = new (block) State();
    return OK;
}

void FreeModuleData() {
    State* s = std::exchange(g_state, nullptr);
    if (!s) return;
    s->data.ForEach([](const TextureUrl&, TextureData& d) { SetTexture(d, nullptr); });
    RemoveReference(reinterpret_cast<ObservableObject*>(s->observable.load() & ~UInt(1)));
    s->~State();
    SystemInterface::Free(s);
}

Result<State*> GetState() {
    if (!g_state)
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Texture cache not initialised");
    return g_state;
}

}  // namespace

Result<UrlObject*> ResolveUrl(const UrlObject* urlObject, const UrlObject* const* searchPaths,
                              Int count) {
    if (!urlObject)
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "Url missing");
    Url url(urlObject);
    if (!(url.GetScheme() == LiteralId("relative"))) {
        AddReference(urlObject);
        return const_cast<UrlObject*>(urlObject);
    }
    if (!searchPaths || count <= 0 || url.GetName().empty()) return RelativePathError(url);
    Result<State*> state = GetState();
    if (state.IsError()) return state.GetError();
    Result<UrlTranslation*> found = state.GetValue()->translations.FindOrCreate(url.GetPath());
    if (found.IsError()) return found.GetError();
    UrlTranslation& tr = *found.GetValue();
    ScopedSpinLock lock(tr.lock);
    const Url first(searchPaths[0]);
    if (!tr.url.IsEmpty()) {
        for (const Url& known : tr.searchPaths) {
            if (known.Compare(first) == 0) {
                Url answer = tr.url;
                AddReference(answer.GetObject());
                return const_cast<UrlObject*>(answer.GetObject());
            }
        }
    }
    Url hit;
    for (Int i = 0; i < count; ++i) {
        Url candidate(searchPaths[i]);
        if (candidate.Append(url).IsError()) continue;
        if (candidate.IoDetect() == IODETECT::FILE) {
            hit = candidate;
            break;
        }
    }
    if (hit.IsEmpty()) return RelativePathError(url);
    try {
        tr.searchPaths.push_back(first);
    } catch (...) {
        return OutOfMemoryError();
    }
    tr.url = hit;
    AddReference(hit.GetObject());
    return const_cast<UrlObject*>(hit.GetObject());
}

Result<TextureImpl*> LoadTexture(const UrlObject* urlObject, const UrlObject* const* searchPaths,
                                 Int count, UInt32 flags, const LayerSetObject* layerSet,
                                 Float64 time, const TextureTimeMapper* timeMapper) {
    if (!urlObject || UrlInterface::IsEmpty(urlObject)) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "LoadTexture needs a url");
    }
    Result<State*> state = GetState();
    if (state.IsError()) return state.GetError();
    State& s = *state.GetValue();
    Result<UrlObject*> resolved = ResolveUrl(urlObject, searchPaths, count);
    if (resolved.IsError()) return resolved.GetError();
    TextureUrl key;
    key.url = Url::Adopt(resolved.GetValue());
    key.urlHash = TextHash(key.url.ToText());
    key.layerSet = Ref<LayerSetObject>(const_cast<LayerSetObject*>(layerSet));
    key.flags = flags & TEXTURE_FLAG_CONVERT_TO_FLOAT;
    key.time = time;

    Result<TextureInfo*> infoFound = s.infos.FindOrCreate(key.url);
    if (infoFound.IsError()) return infoFound.GetError();
    TextureInfo& info = *infoFound.GetValue();
    const Url& url = key.url;
    QUORV_RETURN_IF_ERROR(info.loaded.Run([&info, &url] { return ProbeInfo(info, url); },
                                          OnceGuard::FAILURE::KEEP_ERROR));
    // A request with and one without conversion share the entry of a float picture.
    if (info.isRegularFloatingPoint) key.flags &= ~TEXTURE_FLAG_CONVERT_TO_FLOAT;
    if (timeMapper && timeMapper->call)
        QUORV_RETURN_IF_ERROR(timeMapper->call(timeMapper->user, info.duration, &key.time));
    if (key.time > info.duration || key.time < 0.0)
        key.time = std::max(std::min(key.time, info.duration), 0.0);

    Result<TextureData*> dataFound = s.data.FindOrCreate(key);
    if (dataFound.IsError()) return dataFound.GetError();
    TextureData& data = *dataFound.GetValue();
    const TextureUrl& k = key;
    QUORV_RETURN_IF_ERROR(data.loaded.Run(
        [&data, &k]() -> Result<void> {
            if ((data.texture.load(std::memory_order_acquire) & ~UInt(1)) != 0) return OK;
            if (ThreadServicesInterface::IsCurrentJobCancelled())
                return OperationCancelledError(QUORV_SOURCE_LOCATION);
            TextureImpl* t = texture::Alloc(QUORV_SOURCE_LOCATION);
            if (!t) return OutOfMemoryError();
            Result<void> r = texture::Init(t, k.url.GetObject(), k.flags, k.layerSet.Get(), k.time);
            if (r.IsError()) {
                RemoveReference(t);
                return r;
            }
            SetTexture(data, t);
            return OK;
        },
        OnceGuard::FAILURE::KEEP_ERROR));
    TextureImpl* t = CopyTexture(data);
    if (!t)
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Texture flushed while loading");
    return t;
}

void AllowReinitialization() {
    if (!g_state) return;
    g_state->infos.ForEach([](const Url&, TextureInfo& info) { info.loaded.ResetFailed(); });
    g_state->data.ForEach([](const TextureUrl&, TextureData& d) { d.loaded.ResetFailed(); });
}

void FlushUnused() {
    if (!g_state) return;
    g_state->data.ForEach([](const TextureUrl&, TextureData& d) {
        if (d.loaded.GetState() != OnceGuard::DONE) return;
        TextureImpl* t = CopyTexture(d);
        // This walk's copy and the map's own: nobody else holds it.
        const bool unused = t && GetCountWord(t) < 3 * REFERENCE_STEP;
        RemoveReference(t);
        if (unused) EmptyData(d);
    });
    Notify();
}

void FlushAll() {
    if (!g_state) return;
    g_state->infos.ForEach([](const Url&, TextureInfo& info) { EmptyInfo(info); });
    g_state->data.ForEach([](const TextureUrl&, TextureData& d) { EmptyData(d); });
    g_state->translations.ForEach([](const std::string&, UrlTranslation& tr) {
        ScopedSpinLock lock(tr.lock);
        tr.url = Url();
        tr.searchPaths.clear();
    });
    Notify();
}

ObservableObject* ObservableFlushed(Bool create) {
    if (!g_state) return nullptr;
    UInt w = LockWord(g_state->observable);
    if (w == 0 && create) {
        Result<ObservableObject*> o = ObservableInterface::Create(
            OBSERVABLE_CLASS_ID, OBSERVABLE_COMBINER_RUNALL_ID, OBSERVER_CLASS_ID);
        if (o.IsOk()) w = reinterpret_cast<UInt>(o.GetValue());
    }
    UnlockWord(g_state->observable, w);
    return reinterpret_cast<ObservableObject*>(w);
}

namespace {

void* const g_functions[] = {
    reinterpret_cast<void*>(&LoadTexture),
    reinterpret_cast<void*>(&ResolveUrl),
    reinterpret_cast<void*>(&AllowReinitialization),
    reinterpret_cast<void*>(&FlushUnused),
    reinterpret_cast<void*>(&FlushAll),
    reinterpret_cast<void*>(&ObservableFlushed),
};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == TextureManagementInterface::COUNT);
static_assert(std::is_same_v<decltype(&LoadTexture),
                             decltype(TextureManagementInterface::Slots::LoadTexture)>);
static_assert(
    std::is_same_v<decltype(&ResolveUrl), decltype(TextureManagementInterface::Slots::ResolveUrl)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
InitializationRecord g_initialization;
char g_nameRun[TextureManagementInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(TextureManagementInterface::INTERFACE_ID);
    g_interfaceNames.methodNames =
        BuildSlotNameRun(TextureManagementInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = TextureManagementInterface::Describe().returnKinds;
    g_interfaceNames.count = TextureManagementInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
    DefineInitialization(g_initialization, __FILE__, &InitModuleData, &FreeModuleData, g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace texturemanagement

}  // namespace quorv
