#pragma once
/// Data types and typed values. A `DataType` is a host object (counted unless immortal) that
/// names a C++ type and carries its 22 generic operations; a `Data` is one value of any type,
/// held on the heap through the type's heap form.

#include <string>

#include "quorv/basictypes.h"
#include "quorv/entity.h"

namespace quorv {

/// A data type object. Plain record: modules read it directly.
struct DataType {
    static constexpr UInt8 FLAG_IMMORTAL = 1;
    /// Values of the type have no comparison (`COMPARISON::NONE`): comparing them reports a
    /// stop, so callers that can do without one test this first.
    static constexpr UInt8 FLAG_NOCOMPARISON = 2;

    LiteralId id;
    const char* typeName;
    Int size;
    Int alignment;
    const DataTypeOperations* operations;
    DATATYPEKIND kind;
    UInt8 flags;                  ///< FLAG_IMMORTAL, FLAG_NOCOMPARISON
    const EnumValue* enumValues;  ///< enumerations: their values
    Int enumCount;
    const DataType* elementType;  ///< generic and delegate types: what they wrap
};

/// How a data type compares its values.
enum class COMPARISON {
    NONE,       ///< each comparison says "Stop: IsEqual not defined." (and so on) and answers 0
    OPERATORS,  ///< `==`, `<` and std::hash
    BYTES,      ///< the bytes of the value (plain records of numbers)
};

/// Builds a data type's operation table for a C++ type from its default constructor, copy and
/// move, comparing as `MODE` says.
template <typename T, COMPARISON MODE>
const DataTypeOperations& DataTypeOperationsOf();

/// A typed value, or empty. Copy clones through the type; destruction frees through it.
class Data {
public:
    Data() = default;
    Data(const Data& o);
    Data(Data&& o) noexcept : _type(o._type), _value(o._value) {
        o._type = nullptr;
        o._value = nullptr;
    }
    Data& operator=(Data o) noexcept {
        std::swap(_type, o._type);
        std::swap(_value, o._value);
        return *this;
    }
    ~Data() {
        if (_type) Reset();  // empty ones (spares, moved-from values) end without a call
    }

    /// A value of `type` copied from `src`; empty when memory is short (IsEmpty then tells).
    static Data Make(const DataType* type, const void* src);
    template <typename T>
    static Data Of(const T& v);

    void Reset();
    bool IsEmpty() const { return _type == nullptr; }
    const DataType* GetType() const { return _type; }
    const void* GetPointer() const { return _value; }
    void* GetPointer() { return _value; }
    /// The value when it has type T (by type object), else null.
    template <typename T>
    const T* Get() const;

private:
    const DataType* _type = nullptr;
    void* _value = nullptr;
};
static_assert(sizeof(Data) == 16);

/// Maps a C++ type to its data type id. Specialised for every type that crosses modules.
template <typename T>
struct DataTypeIdOf;

#define QUORV_DATATYPE_ID(TYPE, ID)           \
    template <>                               \
    struct DataTypeIdOf<TYPE> {               \
        static constexpr const char* id = ID; \
    }

QUORV_DATATYPE_ID(Bool, "bool");
QUORV_DATATYPE_ID(Int32, "int32");
QUORV_DATATYPE_ID(Int, "int64");
QUORV_DATATYPE_ID(Float32, "float32");
QUORV_DATATYPE_ID(Float64, "float64");
QUORV_DATATYPE_ID(Vector2d64, "net.quorv.parametrictype.vec<2,float64>");
QUORV_DATATYPE_ID(Vector64, "net.quorv.parametrictype.vec<3,float64>");
QUORV_DATATYPE_ID(Vector32, "net.quorv.parametrictype.vec<3,float32>");
QUORV_DATATYPE_ID(Matrix64,
                  "net.quorv.parametrictype.mat<3,net.quorv.parametrictype.vec<3,float64>>");
QUORV_DATATYPE_ID(Color64, "net.quorv.parametrictype.col<3,float64>");
QUORV_DATATYPE_ID(ColorA64, "net.quorv.parametrictype.col<4,float64>");
QUORV_DATATYPE_ID(ColorA32, "net.quorv.parametrictype.col<4,float32>");
QUORV_DATATYPE_ID(std::string, "net.quorv.string");
QUORV_DATATYPE_ID(UInt32, "uint32");
/// Class values (counted class objects), as registries hold them.
QUORV_DATATYPE_ID(ClassObject*, "net.quorv.class");
QUORV_DATATYPE_ID(Id, "net.quorv.id");
QUORV_DATATYPE_ID(IdArray, "net.quorv.basearray<net.quorv.id>");
QUORV_DATATYPE_ID(Vector2i64, "net.quorv.parametrictype.vec<2,int64>");
QUORV_DATATYPE_ID(TimeValue, "net.quorv.timevalue");

/// The data type of T, looked up by id through the host once per module and cached. Null
/// before the host is bound or when the host lacks the type.
template <typename T>
const DataType* GetDataType();

/// Reports a missing comparison of a data type and answers 0.
void ReportUndefinedOperation(const char* operation);

}  // namespace quorv

// The template definitions call the host through quorv/services.h, which includes this file.
#include "quorv/services.h"
