#pragma once
// The data type library of the host: built-in types, module types from their records, enum,
// generic and delegate types, and the lookup by id.
//
// Built-in types, immortal: the ids of `DataTypeIdOf` (numbers, vectors, matrices, colours,
// "net.quorv.string"), "net.quorv.class" (a counted `ClassObject*`), the invalid type
// "net.quorv.datatype.invalid", the void type "void" and the type of types "net.quorv.datatype"
// (a `const DataType*`).
//
// Ids of the made types. `GetGenericType(E)` gives "generic<E>", `GetDelegateType(R, A, B)`
// gives "delegate<R(A,B)>", each part the id of that type (its type name when the id is empty,
// "void" for a null result). One type is made per distinct set of type objects and kept to the
// end of the process. A generic type has the layout and operations of its element; a delegate
// value is a `DelegateValue` compared by its bytes.

#include <vector>

#include "quorv/host/host.h"

namespace quorv::host {

/// The value of a delegate type: a function and the context it is called with.
struct DelegateValue {
    void* function = nullptr;
    void* context = nullptr;
    friend bool operator==(const DelegateValue&, const DelegateValue&) = default;
};

/// Registers `DataTypeLibInterface` and creates the built-in types (once per process).
void RegisterDataTypeService(Host& host);

/// Defines the type of a module's record (TUPLE or ENUM kind) and sets `record.value`. A second
/// type with the same non-empty id is an illegal-state error naming the id; records with an
/// empty id (hidden enums) are kept, listed, and found by no id. An ENUM record without
/// operations gets those of Int32.
Result<const DataType*> DefineDataTypeFromRecord(DataTypeRecord& record);

/// Removes the type defined from `record` (at module unload) and clears `record.value`. Types
/// made over it (generic, delegate) are no longer found either. A record that defined nothing
/// is ignored.
void RemoveDataTypeOfRecord(DataTypeRecord& record);

/// Every registered type, in registration order.
std::vector<const DataType*> ListDataTypes();

}  // namespace quorv::host
