#include "quorv/literalid.h"

#include "quorv/services.h"

namespace quorv {

bool LiteralId::SetOwned(std::string_view t) {
    Clear();
    if (t.empty()) return true;
    char* p = static_cast<char*>(SystemInterface::Alloc(static_cast<Int>(t.size()) + 1,
                                                        QUORV_SOURCE_LOCATION));
    if (!p) return false;
    std::memcpy(p, t.data(), t.size());
    p[t.size()] = 0;
    text = p;
    word = LiteralIdWord(t) | OWNED_BIT;
    return true;
}

void LiteralId::Clear() {
    if (IsOwned()) SystemInterface::Free(const_cast<char*>(text));
    text = nullptr;
    word = 0;
}

}  // namespace quorv
