#pragma once
/// The per-sample context a renderer of another module threads through its shading. It owns
/// two counted references and is the one render record that is not trivially copyable.

#include <cstddef>
#include <type_traits>

#include "quorv/datatype.h"
#include "quorv/ref.h"
#include "render/cameras/renderray.h"
#include "render/cameras/shadingpoint.h"
#include "render/frame/intersectionresult.h"
#include "render/frame/projection.h"

namespace quorv {

/// Opaque host object: an OCIO colour configuration.
struct OcioConfigObject;
/// Opaque host object: a colour profile.
struct ColorProfileObject;

/// A counted reference that a copy of its holder does not take along: a copy (construction or
/// assignment) holds null, a move hands the reference over. One word wide.
template <typename T>
class ContextRef {
public:
    ContextRef() = default;
    /// Holds the reference of `r`.
    ContextRef(Ref<T> r) : _ref(std::move(r)) {}
    ContextRef(const ContextRef&) noexcept {}
    ContextRef& operator=(const ContextRef& o) noexcept {
        if (this != &o) _ref = nullptr;
        return *this;
    }
    ContextRef(ContextRef&&) noexcept = default;
    ContextRef& operator=(ContextRef&&) noexcept = default;

    T* Get() const { return _ref.Get(); }
    const Ref<T>& GetRef() const { return _ref; }
    explicit operator bool() const { return static_cast<bool>(_ref); }

private:
    Ref<T> _ref;
};

/// The shading context. A copy copies every member except `ocioConfig` and `colorProfile`,
/// which are null in the copy; a move hands both over. Destruction releases `colorProfile`
/// first and `ocioConfig` second. Owned by one thread; only the two references are shared
/// (their counts are atomic).
struct ShadingContext {
    UInt contextWord = 0;
    Int contextIndex = -1;
    UInt contextHandle = 0;
    UInt contextPair[2] = {0, 0};
    Int objectIndex = -1;
    ShadingPoint point;
    Projection projection;
    UInt scratchBlock[6] = {};
    UInt auxWord = 0;
    UInt lateWord;  ///< deliberately not set by construction; the renderer writes it first
    Ray ray;
    Int indices[3] = {-1, -1, -1};
    IntersectionHead hitHead;
    UInt tailBlock[4] = {};
    ContextRef<OcioConfigObject> ocioConfig;
    ContextRef<ColorProfileObject> colorProfile;

    ShadingContext() = default;
    ShadingContext(const ShadingContext&) = default;
    ShadingContext(ShadingContext&&) noexcept = default;
    ShadingContext& operator=(const ShadingContext&) = default;
    ShadingContext& operator=(ShadingContext&&) noexcept = default;
    ~ShadingContext() {
        colorProfile = ContextRef<ColorProfileObject>(nullptr);
        ocioConfig = ContextRef<OcioConfigObject>(nullptr);
    }
};

static_assert(sizeof(ContextRef<OcioConfigObject>) == sizeof(void*));
static_assert(offsetof(ShadingContext, objectIndex) == 40);
static_assert(offsetof(ShadingContext, point) == 48);
static_assert(offsetof(ShadingContext, projection) == 280);
static_assert(offsetof(ShadingContext, scratchBlock) == 456);
static_assert(offsetof(ShadingContext, lateWord) == 512);
static_assert(offsetof(ShadingContext, ray) == 520);
static_assert(offsetof(ShadingContext, indices) == 744);
static_assert(offsetof(ShadingContext, hitHead) == 768);
static_assert(offsetof(ShadingContext, tailBlock) == 792);
static_assert(offsetof(ShadingContext, ocioConfig) == 824);
static_assert(offsetof(ShadingContext, colorProfile) == 832);
static_assert(sizeof(ShadingContext) == 840 && alignof(ShadingContext) == 8);

QUORV_DATATYPE_ID(ShadingContext, "net.quorv.render.datatype.shadingcontext");

}  // namespace quorv
