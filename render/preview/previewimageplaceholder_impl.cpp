// PreviewImagePlaceholderImpl: three slots, one per reason, each loading the same picture once
// and keeping it while the module lives.
#include <array>

#include "quorv/jobs.h"
#include "quorv/lazyinit.h"
#include "quorv/ref.h"
#include "quorv/spinwait.h"
#include "quorv/url.h"
#include "render/preview/previewimageplaceholder.h"

namespace quorv {

namespace {

// `image` is the loaded picture itself, the host's ImageTexture (the object GetImage hands
// out), not a copy of its first image. `lock` guards `image` and `url` for the moment they are
// written, and the load's read of `url`; the load and the wait for it happen outside it,
// serialised by `lazy`. A caller that found the load done reads `image` without the lock: it
// is written before the load ends (the lazy state's acquire orders the read after it) and
// next by the free step, which no caller may overlap.
struct PlaceholderSlot {
    Ref<ImageTextureObject> image;
    LazyInitThreaded lazy;
    Url url;
    SpinLock lock;
};

// Process-wide, in the order nospace, nomaterialendnode, error. The three are alike on purpose:
// each caches on its own, so the three reasons load the file three times.
std::array<PlaceholderSlot, 3>& Slots() {
    static std::array<PlaceholderSlot, 3> slots;
    return slots;
}

const LiteralId IDS[3] = {LiteralId(previewimageplaceholder::NOSPACE),
                          LiteralId(previewimageplaceholder::NOMATERIALENDNODE),
                          LiteralId(previewimageplaceholder::ERROR)};

Result<void> StartSlots() {
    for (PlaceholderSlot& slot : Slots()) {
        Result<UrlObject*> dir = ApplicationInterface::PrivateGetUrl(
            APPLICATION_URLTYPE_RESOURCE_DIR, LiteralId("net.quorv.render"), &g_quorv);
        if (dir.IsError()) return dir.GetError();
        Url url = Url::Adopt(dir.GetValue());
        QUORV_RETURN_IF_ERROR(url.Append(previewimageplaceholder::FILE));
        // The lazy state first and apart: a reset waits for a load in flight, and a load takes
        // the slot's lock to read the url.
        slot.lazy.Reset();
        ScopedSpinLock lock(slot.lock);
        slot.url = url;
    }
    return OK;
}

// The free step: a pending load is cancelled and waited for, then the picture and url go.
void FreeSlots() {
    for (PlaceholderSlot& slot : Slots()) {
        slot.lazy.CancelAndReset();
        ScopedSpinLock lock(slot.lock);
        slot.image = Ref<ImageTextureObject>();
        slot.url = Url();
    }
}

ImageTextureObject* GetImage(const LiteralId& placeholder) {
    int index = -1;
    for (int i = 0; i < 3; ++i)
        if (!placeholder.IsEmpty() && placeholder == IDS[i]) index = i;
    if (index < 0) return nullptr;
    PlaceholderSlot& slot = Slots()[size_t(index)];
    // Callers of one slot queue up on its load job, not on its lock: a caller that waits for the
    // load runs other jobs of the load's queue meanwhile, and one of them may ask for this slot
    // on the same thread.
    Result<void> loaded = slot.lazy.Run([&slot]() -> Result<void> {
        Url url;
        {
            ScopedSpinLock lock(slot.lock);
            url = slot.url;
        }
        Result<ImageTextureObject*> r =
            ImageTextureInterface::Load(url.GetObject(), 0.0, nullptr, nullptr);
        if (r.IsError()) return r.GetError();
        ScopedSpinLock lock(slot.lock);
        slot.image = Ref<ImageTextureObject>::Adopt(r.GetValue());
        return OK;
    });
    if (loaded.IsError()) return nullptr;
    ImageTextureObject* image = slot.image.Get();
    AddReference(image);
    return image;
}

void* const g_functions[] = {reinterpret_cast<void*>(&GetImage)};
static_assert(std::is_same_v<decltype(&GetImage),
                             decltype(PreviewImagePlaceholderInterface::Slots::GetImage)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
InitializationRecord g_initialization;
char g_nameRun[PreviewImagePlaceholderInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(PreviewImagePlaceholderInterface::INTERFACE_ID);
    g_interfaceNames.methodNames =
        BuildSlotNameRun(PreviewImagePlaceholderInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = PreviewImagePlaceholderInterface::Describe().returnKinds;
    g_interfaceNames.count = PreviewImagePlaceholderInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
    DefineInitialization(g_initialization, __FILE__, &StartSlots, &FreeSlots, g_unit);
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
