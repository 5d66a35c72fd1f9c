// AssetManagementImpl: relative asset urls resolved against an ordered list of search paths.
#include "render/frame/asset_impl.h"

#include <new>

namespace quorv {

namespace {

const LiteralId RELATIVE("relative");

void Free(AssetManagementImpl* object) { delete object; }

AssetManagementImpl* Alloc(const SourceLocation&) {
    return new (std::nothrow) AssetManagementImpl();
}

Error NullObject() {
    return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No asset management object");
}

Result<void> Append(AssetManagementImpl* object, const Url& url, ASSET_TYPE type, Bool flag) {
    try {
        object->searchPaths.push_back({url, static_cast<Int32>(type), flag});
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();  // the list keeps what it had
    }
    return OK;
}

Result<void> Init(AssetManagementImpl* object, const Url& base) {
    if (!object) return NullObject();
    object->baseUrl = base;
    // A second Init changes only the base.
    if (!object->searchPaths.empty()) return OK;
    for (const auto& [text, type] : {std::pair{"relative:///", ASSET_TYPE::ANY},
                                     std::pair{"relative:///tex", ASSET_TYPE::TEXTURE}}) {
        Result<Url> url = Url::FromText(text);
        if (url.IsError()) return url.GetError();
        QUORV_RETURN_IF_ERROR(Append(object, url.GetValue(), type, false));
    }
    return OK;
}

Result<void> AddSearchPath(AssetManagementImpl* object, const Url& url, ASSET_TYPE type,
                           Bool flag) {
    if (!object) return NullObject();
    return Append(object, url, type, flag);
}

Result<Url> TranslatePath(const AssetManagementImpl* object, const Url& url, ASSET_TYPE type) {
    if (!object) return NullObject();
    // A null url has the scheme of the empty url: not "relative".
    if (!(url.GetScheme() == RELATIVE)) return url;
    for (const SearchPathEntry& entry : object->searchPaths) {
        if (entry.assetType != static_cast<Int32>(ASSET_TYPE::ANY) &&
            entry.assetType != static_cast<Int32>(type))
            continue;
        // Url copies on write: the entry and the base stay as they are.
        Url candidate = entry.url;
        if (candidate.GetScheme() == RELATIVE && !object->baseUrl.IsEmpty()) {
            candidate = object->baseUrl;
            QUORV_RETURN_IF_ERROR(candidate.Append(entry.url));
        }
        QUORV_RETURN_IF_ERROR(candidate.Append(url));
        // Links, folders, missing files and io failures only skip the entry.
        if (candidate.IoDetect() == IODETECT::FILE) return candidate;
    }
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION, "Asset not found.",
                           url.ToText());
}

void* const g_functions[] = {
    reinterpret_cast<void*>(&Free),          reinterpret_cast<void*>(&Alloc),
    reinterpret_cast<void*>(&Init),          reinterpret_cast<void*>(&AddSearchPath),
    reinterpret_cast<void*>(&TranslatePath),
};
static_assert(sizeof(g_functions) / sizeof(g_functions[0]) == AssetManagementInterface::COUNT);
static_assert(std::is_same_v<decltype(&TranslatePath),
                             decltype(AssetManagementInterface::Slots::TranslatePath)>);
static_assert(std::is_same_v<decltype(&AddSearchPath),
                             decltype(AssetManagementInterface::Slots::AddSearchPath)>);

TranslationUnitRecord g_unit;
NonVirtualInterfaceRecord g_interfaceNames;
NonVirtualInterfaceRecord g_implementation;
char g_nameRun[AssetManagementInterface::NAME_RUN_SIZE];

void Register() {
    OpenTranslationUnit(g_unit, g_moduleRecord, __FILE__, 0);
    g_interfaceNames.id = LiteralId(AssetManagementInterface::INTERFACE_ID);
    g_interfaceNames.methodNames =
        BuildSlotNameRun(AssetManagementInterface::Describe(), g_nameRun);
    g_interfaceNames.returnKinds = AssetManagementInterface::Describe().returnKinds;
    g_interfaceNames.count = AssetManagementInterface::COUNT;
    DefineInterfaceImplementation(g_implementation, g_interfaceNames, g_unit, __FILE__, 0);
    g_implementation.implementation = g_functions;
}

const bool g_registered = (Register(), true);

}  // namespace

}  // namespace quorv
