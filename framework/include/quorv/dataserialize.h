#pragma once
/// Serialisation of described objects. A type describes its members once, by name, data type
/// id and offset (`DescribeIO`); the host then reads and writes objects of that type. The
/// host's format is JSON: an object with one entry per member, in the described order.
///
/// Member types the host knows: "float64", "uint32", "int32", "int64", "net.quorv.datadictionary"
/// (a `DataDictionary` member; entries of enum, number, string and vector types), and arrays
/// of "float64" with `DESCRIBEFLAGS_ARRAY` and an accessor.

#include "quorv/services.h"

namespace quorv {

struct DescribeStreamObject;

/// The member is an array, reached through the accessor.
constexpr Int32 DESCRIBEFLAGS_ARRAY = 2048;

/// Access to an array member; `member` points at the member inside the object.
struct DescribeArrayAccessor {
    Int (*getCount)(const void* member);
    const void* (*getElements)(const void* member);
    /// New elements are zero; an error leaves the array as it was.
    Result<void> (*resize)(void* member, Int count);
    void* (*getMutableElements)(void* member);
};

/// Describes the members of a type into the stream; stops at the first error.
using DescribeFunc = Result<void> (*)(DescribeStreamObject* stream);

/// Data type id of dictionary members.
constexpr const char* DATADICTIONARY_TYPE_ID = "net.quorv.datadictionary";

// clang-format off
#define QUORV_DATASERIALIZE_METHODS(M) \
    M(Result<void>, DescribeMember, (DescribeStreamObject* stream, const char* name, const char* typeId, Int offset, const DescribeArrayAccessor* accessor, Int32 flags), (stream, name, typeId, offset, accessor, flags)) \
    M(Result<CStringObject*>, WriteJson, (const void* object, DescribeFunc describe), (object, describe)) \
    M(Result<void>, ReadJson, (void* object, DescribeFunc describe, const char* text, Int length), (object, describe, text, length)) \
    M(Result<CStringObject*>, WriteObjectJson, (const void* instance), (instance)) \
    M(Result<void>, ReadObjectJson, (void* instance, const char* text, Int length), (instance, text, length))
// clang-format on
/// `WriteJson` answers a new byte string with one reference; `ReadJson` fills the members of
/// an existing object and leaves members the text lacks unchanged. `WriteObjectJson` and
/// `ReadObjectJson` do the same for an instance of a class, whose members are those that its
/// components describe (`ComponentRecord::describeIO`, in component order); a component's
/// error refuses the instance, and a class none of whose components describe is a
/// function-not-implemented error naming the class.
QUORV_NONVIRTUAL_INTERFACE(DataSerializeInterface, "net.quorv.interface.dataserialize",
                           QUORV_DATASERIALIZE_METHODS);

}  // namespace quorv
