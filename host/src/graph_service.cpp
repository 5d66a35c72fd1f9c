// Graph attributes: a table of id and value type, kept for the process and listed by
// `quorv classes`.
#include <mutex>
#include <string>
#include <vector>

#include "host_internal.h"
#include "quorv/graphlib.h"
#include "services_impl.h"

namespace quorv::host {

namespace {

std::mutex g_attributeMutex;
std::vector<AttributeListing> g_attributes;  // declaration order

Result<void> CreateAttribute(const LiteralId& id, const char* typeId) {
    const std::string_view type = typeId ? typeId : "";
    if (id.IsEmpty()) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Attribute without id (type @)", {type}));
    }
    if (type.empty() || !DataTypeLibInterface::GetRuntimeDataType(std::string(type).c_str())) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         FormatMessage("Unknown data type @ of attribute @", {type, id.View()}));
    }
    return GuardAllocation([&]() -> Result<void> {
        std::lock_guard<std::mutex> lock(g_attributeMutex);
        for (const AttributeListing& a : g_attributes) {
            if (id != std::string_view(a.id)) continue;
            if (a.typeId == type) return OK;
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("Attribute @ is declared with type @, not @",
                                           {id.View(), a.typeId, type}));
        }
        g_attributes.push_back({std::string(id.View()), std::string(type)});
        return OK;
    });
}

const GraphLibInterface::Slots g_slots{.CreateAttribute = &CreateAttribute};

}  // namespace

void RegisterGraphService(Host& host) { host.RegisterService<GraphLibInterface>(g_slots); }

std::vector<AttributeListing> Host::ListAttributes() const {
    std::lock_guard<std::mutex> lock(g_attributeMutex);
    return g_attributes;
}

}  // namespace quorv::host
