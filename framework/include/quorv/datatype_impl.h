#pragma once
// Template definitions of quorv/datatype.h; included by quorv/services.h, which they call.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace quorv {

namespace datatype_detail {

// FNV-1a over the bytes of a plain record.
inline UInt HashBytes(const void* p, size_t n) {
    UInt h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const unsigned char*>(p)[i]) * 0x100000001b3ull;
    return h;
}

template <typename T>
T* At(void* base, Int stride, Int i) {
    return reinterpret_cast<T*>(static_cast<char*>(base) + stride * i);
}
template <typename T>
const T* At(const void* base, Int stride, Int i) {
    return reinterpret_cast<const T*>(static_cast<const char*>(base) + stride * i);
}

// Plain records this large (a table of a few megabytes) must never be copied whole onto the
// stack: swapping and resetting them works in place.
template <typename T>
constexpr bool IS_LARGE_PLAIN = std::is_trivially_copyable_v<T> && sizeof(T) > 4096;

template <typename T>
void SwapValues(T& a, T& b) {
    if constexpr (IS_LARGE_PLAIN<T>) {
        char* x = reinterpret_cast<char*>(&a);
        char* y = reinterpret_cast<char*>(&b);
        char buffer[256];
        for (size_t offset = 0; offset < sizeof(T); offset += sizeof(buffer)) {
            const size_t n = std::min(sizeof(buffer), sizeof(T) - offset);
            std::memcpy(buffer, x + offset, n);
            std::memcpy(x + offset, y + offset, n);
            std::memcpy(y + offset, buffer, n);
        }
    } else {
        std::swap(a, b);
    }
}

template <typename T, COMPARISON MODE>
struct Ops {
    static void Construct(void* d, Int s, Int n) {
        for (Int i = 0; i < n; ++i) new (At<T>(d, s, i)) T();
    }
    static void Destruct(void* d, Int s, Int n) {
        for (Int i = 0; i < n; ++i) At<T>(d, s, i)->~T();
    }
    static void Copy(void* d, const void* src, Int s, Int n) {
        for (Int i = 0; i < n; ++i) *At<T>(d, s, i) = *At<T>(src, s, i);
    }
    // Walks backwards when the destination lies above the source, so overlapping runs survive.
    static void Move(void* d, void* src, Int s, Int n) {
        if (n < 1) return;
        if (d > src) {
            for (Int i = n - 1; i >= 0; --i) *At<T>(d, s, i) = std::move(*At<T>(src, s, i));
        } else {
            for (Int i = 0; i < n; ++i) *At<T>(d, s, i) = std::move(*At<T>(src, s, i));
        }
    }
    static void Swap(void* a, void* b, Int s, Int n) {
        for (Int i = 0; i < n; ++i) SwapValues(*At<T>(a, s, i), *At<T>(b, s, i));
    }
    static void Fill(void* d, const void* v, Int s, Int n) {
        for (Int i = 0; i < n; ++i) *At<T>(d, s, i) = *static_cast<const T*>(v);
    }
    static void CopyConstruct(void* d, const void* src, Int s, Int n) {
        for (Int i = 0; i < n; ++i) new (At<T>(d, s, i)) T(*At<T>(src, s, i));
    }
    static void MoveConstruct(void* d, void* src, Int s, Int n) {
        for (Int i = 0; i < n; ++i) new (At<T>(d, s, i)) T(std::move(*At<T>(src, s, i)));
    }
    static Bool IsEqual(const DataType*, const void* a, const void* b) {
        if constexpr (MODE == COMPARISON::OPERATORS) {
            return *static_cast<const T*>(a) == *static_cast<const T*>(b);
        } else if constexpr (MODE == COMPARISON::BYTES) {
            return std::memcmp(a, b, sizeof(T)) == 0;
        } else {
            ReportUndefinedOperation("IsEqual");
            return false;
        }
    }
    static Int Compare(const DataType*, const void* a, const void* b) {
        if constexpr (MODE == COMPARISON::OPERATORS) {
            const T& x = *static_cast<const T*>(a);
            const T& y = *static_cast<const T*>(b);
            return x < y ? -1 : (y < x ? 1 : 0);
        } else if constexpr (MODE == COMPARISON::BYTES) {
            int c = std::memcmp(a, b, sizeof(T));
            return c < 0 ? -1 : (c > 0 ? 1 : 0);
        } else {
            ReportUndefinedOperation("Compare");
            return 0;
        }
    }
    static UInt GetHashCode(const DataType*, const void* a) {
        if constexpr (MODE == COMPARISON::OPERATORS) {
            return std::hash<T>()(*static_cast<const T*>(a));
        } else if constexpr (MODE == COMPARISON::BYTES) {
            return HashBytes(a, sizeof(T));
        } else {
            ReportUndefinedOperation("GetHashCode");
            return 0;
        }
    }
    static UInt GetUniqueHashCode(const DataType*, const void* a) {
        if constexpr (MODE == COMPARISON::OPERATORS) {
            return std::hash<T>()(*static_cast<const T*>(a));
        } else if constexpr (MODE == COMPARISON::BYTES) {
            return HashBytes(a, sizeof(T));
        } else {
            ReportUndefinedOperation("GetUniqueHashCode");
            return 0;
        }
    }
    static void* HeapNew(const DataType*) {
        void* p = SystemInterface::Alloc(sizeof(T), QUORV_SOURCE_LOCATION);
        return p ? new (p) T() : nullptr;
    }
    static void* HeapClone(const DataType*, const void* src) {
        void* p = SystemInterface::Alloc(sizeof(T), QUORV_SOURCE_LOCATION);
        return p ? new (p) T(*static_cast<const T*>(src)) : nullptr;
    }
    static void HeapDelete(const DataType*, void* p) {
        if (!p) return;
        static_cast<T*>(p)->~T();
        SystemInterface::Free(p);
    }
    static void HeapAssign(const DataType*, void* d, const void* src) {
        *static_cast<T*>(d) = *static_cast<const T*>(src);
    }
    static Bool HeapIsEqual(const DataType* t, const void* a, const void* b) { return IsEqual(t, a, b); }
    static Int HeapCompare(const DataType* t, const void* a, const void* b) { return Compare(t, a, b); }
    static UInt HeapGetHashCode(const DataType* t, const void* a) { return GetHashCode(t, a); }
    static void HeapReset(const DataType*, void* p) {
        if constexpr (IS_LARGE_PLAIN<T>) {
            static_cast<T*>(p)->~T();
            new (p) T();
        } else {
            *static_cast<T*>(p) = T();
        }
    }
    static Int GetSize(const DataType*) { return sizeof(T); }
    static Int GetAlignment(const DataType*) { return alignof(T); }

    static constexpr DataTypeOperations table{
        Construct,   Destruct,        Copy,          Move,
        Swap,        Fill,            CopyConstruct, MoveConstruct,
        IsEqual,     Compare,         GetHashCode,   GetUniqueHashCode,
        HeapNew,     HeapClone,       HeapDelete,    HeapAssign,
        HeapIsEqual, HeapCompare,     HeapGetHashCode, HeapReset,
        GetSize,     GetAlignment};
};

}  // namespace datatype_detail

template <typename T, COMPARISON MODE>
const DataTypeOperations& DataTypeOperationsOf() {
    return datatype_detail::Ops<T, MODE>::table;
}

template <typename T>
const DataType* GetDataType() {
    static std::atomic<const DataType*> cached{nullptr};
    const DataType* t = cached.load(std::memory_order_acquire);
    if (t) return t;
    t = DataTypeLibInterface::GetRuntimeDataType(DataTypeIdOf<T>::id);
    if (t) cached.store(t, std::memory_order_release);
    return t;
}

template <typename T>
Data Data::Of(const T& v) {
    return Make(GetDataType<T>(), &v);
}

template <typename T>
const T* Data::Get() const {
    if (!_type || _type != GetDataType<T>()) return nullptr;
    return static_cast<const T*>(_value);
}

/// Defines the data type record of the plain record T in `unit`, under T's data type id.
template <typename T, COMPARISON MODE>
void DefineRecordDataType(DataTypeRecord& record, const char* typeName,
                          TranslationUnitRecord& unit, const char* sourceName) {
    DefineDataType(record, LiteralId(DataTypeIdOf<T>::id), unit, sourceName, 0);
    record.typeName = typeName;
    record.size = sizeof(T);
    record.alignment = alignof(T);
    record.operations = &DataTypeOperationsOf<T, MODE>();
    record.kind = DATATYPEKIND::TUPLE;
    record.typeFlags = MODE == COMPARISON::NONE ? DataType::FLAG_NOCOMPARISON : 0;
}

/// Defines the data type record of the enumeration E with its values in `unit`. An
/// enumeration without an id is hidden and listed by its type name.
template <typename E, size_t N>
void DefineEnumDataType(DataTypeRecord& record, LiteralId id, const char* typeName,
                        const EnumValue (&values)[N], TranslationUnitRecord& unit,
                        const char* sourceName) {
    DefineDataType(record, id, unit, sourceName, id.IsEmpty() ? EntityBase::FLAGS::HIDDEN : 0);
    record.typeName = typeName;
    record.size = sizeof(E);
    record.alignment = alignof(E);
    record.operations = &DataTypeOperationsOf<E, COMPARISON::OPERATORS>();
    record.kind = DATATYPEKIND::ENUM;
    record.enumValues = values;
    record.enumCount = static_cast<Int>(N);
}

}  // namespace quorv
