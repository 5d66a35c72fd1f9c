#pragma once
// The data of AssetManagementImpl, for the module and its white-box tests; callers see the
// object only through "net.quorv.render.interface.assetmanagement" (asset.h).
#include <vector>

#include "quorv/systemallocator.h"
#include "render/frame/asset.h"

namespace quorv {

/// One search path.
struct SearchPathEntry {
    Url url;
    Int32 assetType = 0;  ///< an ASSET_TYPE
    Bool flag = false;    ///< kept for callers; the search doesn't read it
};

/// The list takes its memory from the host, so that running out is the out-of-memory error and
/// the list keeps what it had.
using SearchPaths = std::vector<SearchPathEntry, SystemAllocator<SearchPathEntry>>;

struct AssetManagementImpl {
    Url baseUrl;
    SearchPaths searchPaths;  ///< insertion order is search order
};

}  // namespace quorv
