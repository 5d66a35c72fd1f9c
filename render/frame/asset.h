#pragma once
/// "net.quorv.render.interface.assetmanagement": turns a url of the scheme "relative" into one
/// that names an existing file, by trying an ordered list of search paths.
///
/// Through `AssetManagementRef` (or the slots directly):
/// - `Alloc(loc)`: a new object with an empty list, or null when memory is out; `Free` ends it.
/// - `Init(base)`: stores the base url. The first `Init` also adds the two default entries
///   "relative:///" (ANY) and "relative:///tex" (TEXTURE); a second one changes only the base.
/// - `AddSearchPath(url, type, flag)`: appends an entry (no check for duplicates or existence).
///   `flag` is kept per entry and read by nothing here.
/// - `TranslatePath(url, type)`: a url of another scheme comes back as it is, unchecked. Else,
///   for each entry serving `type` ("ANY" entries serve all; an "ANY" request sees only them):
///   the entry's url, joined to the base when it is relative and the base is set, then the
///   requested url appended; the first candidate the io handler calls a FILE is the answer. A
///   link is not a FILE (it is skipped), a directory neither; ".." in the request is not
///   checked and may leave the search paths. None found: "net.quorv.error.io" naming the url,
///   "Asset not found.".
/// Thread safety: fill first (`Init`, `AddSearchPath`), then `TranslatePath` from any number
/// of threads; it changes nothing in the object (candidates are copies).

#include "quorv/url.h"

namespace quorv {

/// What an entry serves, or what a request asks for.
enum class ASSET_TYPE : Int32 { ANY = 0, TEXTURE = 1, SCENE = 2 };

/// The object, opaque to callers; made by the module.
struct AssetManagementImpl;

// clang-format off
#define QUORV_ASSETMANAGEMENT_METHODS(M) \
    M(void, Free, (AssetManagementImpl* object), (object)) \
    M(AssetManagementImpl*, Alloc, (const SourceLocation& loc), (loc)) \
    M(Result<void>, Init, (AssetManagementImpl* object, const Url& base), (object, base)) \
    M(Result<void>, AddSearchPath, (AssetManagementImpl* object, const Url& url, ASSET_TYPE type, \
                                    Bool flag), (object, url, type, flag)) \
    M(Result<Url>, TranslatePath, (const AssetManagementImpl* object, const Url& url, \
                                   ASSET_TYPE type), (object, url, type))
// clang-format on

QUORV_NONVIRTUAL_INTERFACE(AssetManagementInterface, "net.quorv.render.interface.assetmanagement",
                           QUORV_ASSETMANAGEMENT_METHODS);

/// An owning handle: frees the object at the end of its life. Not copyable.
class AssetManagementRef {
public:
    /// A new object, or the out-of-memory error.
    static Result<AssetManagementRef> Create() {
        AssetManagementImpl* o = AssetManagementInterface::Alloc(QUORV_SOURCE_LOCATION);
        if (!o) return OutOfMemoryError();
        AssetManagementRef r;
        r._object = o;
        return r;
    }
    AssetManagementRef() = default;
    AssetManagementRef(AssetManagementRef&& o) noexcept
        : _object(std::exchange(o._object, nullptr)) {}
    AssetManagementRef& operator=(AssetManagementRef&& o) noexcept {
        std::swap(_object, o._object);
        return *this;
    }
    ~AssetManagementRef() {
        if (_object) AssetManagementInterface::Free(_object);
    }
    Result<void> Init(const Url& base) { return AssetManagementInterface::Init(_object, base); }
    Result<void> AddSearchPath(const Url& url, ASSET_TYPE type, Bool flag) {
        return AssetManagementInterface::AddSearchPath(_object, url, type, flag);
    }
    Result<Url> TranslatePath(const Url& url, ASSET_TYPE type) const {
        return AssetManagementInterface::TranslatePath(_object, url, type);
    }

private:
    AssetManagementImpl* _object = nullptr;
};

}  // namespace quorv
