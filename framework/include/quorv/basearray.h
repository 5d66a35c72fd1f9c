#pragma once
/// A growing array of trivially copyable values on the host's memory service. Growth is an
/// error value (out of memory), never an exception.

#include <cstring>
#include <type_traits>
#include <utility>

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

template <typename T>
class BaseArray {
    static_assert(std::is_trivially_copyable_v<T>, "BaseArray holds plain values");

public:
    /// Capacity of the first block.
    static constexpr Int FIRST_CAPACITY = 16;

    BaseArray() = default;
    BaseArray(const BaseArray&) = delete;
    BaseArray& operator=(const BaseArray&) = delete;
    BaseArray(BaseArray&& o) noexcept { Swap(o); }
    BaseArray& operator=(BaseArray&& o) noexcept {
        if (this != &o) {
            Reset();
            Swap(o);
        }
        return *this;
    }
    ~BaseArray() { Reset(); }

    Int GetCount() const { return _count; }
    Int GetCapacity() const { return _capacity; }
    T* GetFirst() { return _data; }
    const T* GetFirst() const { return _data; }
    T& operator[](Int i) { return _data[i]; }
    const T& operator[](Int i) const { return _data[i]; }

    /// Sets the count; new elements are zero. An error leaves the array as it was.
    Result<void> Resize(Int count) {
        if (count < 0) return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION, "Negative count");
        if (count > _capacity) {
            Int capacity = _capacity < FIRST_CAPACITY ? FIRST_CAPACITY : _capacity;
            while (capacity < count) capacity = capacity > (Int(1) << 40) ? count : capacity * 2;
            if (capacity > (Int(1) << 56) / static_cast<Int>(sizeof(T))) return OutOfMemoryError();
            void* p = SystemInterface::Realloc(_data, capacity * static_cast<Int>(sizeof(T)),
                                               QUORV_SOURCE_LOCATION);
            if (!p) return OutOfMemoryError();
            _data = static_cast<T*>(p);
            _capacity = capacity;
        }
        if (count > _count) {
            std::memset(static_cast<void*>(_data + _count), 0,
                        static_cast<size_t>(count - _count) * sizeof(T));
        }
        _count = count;
        return OK;
    }
    /// Copies the content of `o`.
    Result<void> CopyFrom(const BaseArray& o) {
        if (this == &o) return OK;
        QUORV_RETURN_IF_ERROR(Resize(o._count));
        if (o._count > 0) std::memcpy(static_cast<void*>(_data), o._data, static_cast<size_t>(o._count) * sizeof(T));
        return OK;
    }
    /// Frees the storage.
    void Reset() {
        if (_data) SystemInterface::Free(_data);
        _data = nullptr;
        _count = 0;
        _capacity = 0;
    }
    void Swap(BaseArray& o) noexcept {
        std::swap(_data, o._data);
        std::swap(_count, o._count);
        std::swap(_capacity, o._capacity);
    }

private:
    T* _data = nullptr;
    Int _count = 0;
    Int _capacity = 0;
};

}  // namespace quorv
