#pragma once
/// "net.quorv.interface.previewimageplaceholder": the picture a user interface shows when no
/// real preview can be had. Three reasons, each a slot that loads its picture once (through the
/// host's image texture load, as a job) and keeps it while the module lives. All three slots
/// load the same file, `RESOURCE_DIR` of "net.quorv.render" + "modules/browser/icons/wrong.tif",
/// each on its own.
///
/// `GetImage(placeholder)`: a new reference to the slot's picture (the caller drops it with
/// `ImageTextureInterface::Free`), or null for an unknown or empty id and for a picture that
/// could not be loaded. A failed load is remembered: the file isn't tried again while the module
/// lives. Thread safety: any thread; callers of one slot wait for its one load job during the
/// first load (no lock is held meanwhile, so a waiting job thread may run further callers),
/// slots don't block one another.

#include "quorv/image.h"

namespace quorv {

namespace previewimageplaceholder {
constexpr const char* NOSPACE = "net.quorv.nodes.previewimageplaceholder.nospace";
constexpr const char* NOMATERIALENDNODE =
    "net.quorv.nodes.previewimageplaceholder.nomaterialendnode";
constexpr const char* ERROR = "net.quorv.nodes.previewimageplaceholder.error";
/// The file under the host's resource folder.
constexpr const char* FILE = "modules/browser/icons/wrong.tif";
}  // namespace previewimageplaceholder

// clang-format off
#define QUORV_PREVIEWIMAGEPLACEHOLDER_METHODS(M) \
    M(ImageTextureObject*, GetImage, (const LiteralId& placeholder), (placeholder))
// clang-format on

QUORV_NONVIRTUAL_INTERFACE(PreviewImagePlaceholderInterface,
                           "net.quorv.interface.previewimageplaceholder",
                           QUORV_PREVIEWIMAGEPLACEHOLDER_METHODS);

}  // namespace quorv
