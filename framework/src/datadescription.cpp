// Callers' tables of the description and warning services, and value equality.
#include "quorv/datadescription.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataDescriptionDatabaseInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(DataDescriptionInterface)
QUORV_DEFINE_NONVIRTUAL_INTERFACE(WarningInterface)

bool IsEqualData(const Data& a, const Data& b) {
    const DataType* t = a.GetType();
    if (!t || t != b.GetType() || !t->operations || !t->operations->HeapIsEqual) return false;
    // Unequal without asking: the type's own comparison would report a stop for each call.
    if (t->flags & DataType::FLAG_NOCOMPARISON) return false;
    return t->operations->HeapIsEqual(t, a.GetPointer(), b.GetPointer());
}

}  // namespace quorv
