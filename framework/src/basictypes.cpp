#include "quorv/basictypes.h"

#include "quorv/services.h"

namespace quorv {

Id Id::Intern(std::string_view text) {
    Id id;
    if (text.empty()) return id;
    const CStringObject* s =
        CStringInterface::GetAndCacheConstString(text.data(), static_cast<Int>(text.size()));
    if (!s) return id;
    id._text = CStringInterface::GetData(s);
    id._length = static_cast<Int>(text.size());
    return id;
}

}  // namespace quorv
