#pragma once
// Registration of the value services (strings, urls, dictionaries, data types) and the
// allocation helpers their counted objects share.

#include <stdexcept>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "quorv/host/host.h"

namespace quorv::host {

/// Registers `StringInterface` and `CStringInterface`.
void RegisterStringService(Host& host);
/// Registers `UrlInterface`.
void RegisterUrlService(Host& host);
/// Registers `DataDictionaryInterface`.
void RegisterDataDictionaryService(Host& host);
/// Registers `DataTypeLibInterface` and creates the built-in types.
void RegisterDataTypeService(Host& host);

/// Count word of objects that live to the end of the process: far above any count that
/// references can reach, so a drop never frees them and `IsShared` is always true.
constexpr UInt IMMORTAL_COUNT = UInt(1) << 60;

/// Allocates a counted T behind a header from the system allocator, count word 0 (the caller
/// adds the first reference). `destroy` runs at the last drop. Null when memory is short or
/// the constructor throws.
template <typename T, typename... A>
T* NewCountedObject(DestroyFunc destroy, const SourceLocation& loc, A&&... args) noexcept {
    static_assert(alignof(T) <= 16, "the header keeps objects 16-aligned, no more");
    void* block = SystemInterface::Alloc(static_cast<Int>(sizeof(ObjectHeader) + sizeof(T)), loc);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, destroy, 0, 0};
    try {
        return new (header + 1) T(std::forward<A>(args)...);
    } catch (...) {
        header->~ObjectHeader();
        SystemInterface::Free(block);
        return nullptr;
    }
}

/// Destructs and frees an object made by `NewCountedObject`; null is ignored.
template <typename T>
void DeleteCountedObject(void* object) noexcept {
    if (!object) return;
    ObjectHeader* header = HeaderOf(object);
    static_cast<T*>(object)->~T();
    header->~ObjectHeader();
    SystemInterface::Free(header);
}

/// The `destroy` of objects that are never freed.
inline void NeverDestroy(void*) {}

/// Allocates a T that lives to the end of the process, from malloc (usable before the host's
/// own slots are bound). Null when memory is short.
template <typename T, typename... A>
T* NewImmortalObject(A&&... args) noexcept {
    static_assert(alignof(T) <= 16, "the header keeps objects 16-aligned, no more");
    void* block = ::operator new(sizeof(ObjectHeader) + sizeof(T), std::nothrow);
    if (!block) return nullptr;
    auto* header = new (block) ObjectHeader{nullptr, &NeverDestroy, 0, IMMORTAL_COUNT};
    try {
        return new (header + 1) T(std::forward<A>(args)...);
    } catch (...) {
        header->~ObjectHeader();
        ::operator delete(block);
        return nullptr;
    }
}

/// Runs a slot body that answers a `Result`: no exception leaves a slot function. A failed
/// allocation of the standard library (bad_alloc, or length_error for absurd sizes) becomes the
/// out-of-memory error; any other exception an error of its own that carries its text, so that
/// a failure that is not about memory is never reported as one.
template <typename F>
auto GuardAllocation(F&& body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    } catch (const std::length_error&) {
        return OutOfMemoryError();
    } catch (const std::exception& e) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION, e.what());
    } catch (...) {
        return MakeError(ERRORKIND::OTHER, QUORV_SOURCE_LOCATION, "Unexpected failure");
    }
}

/// Largest file `ReadWholeFile` reads: far above any text the services read, low enough that an
/// endless source (/dev/zero, a pipe that never ends) is refused instead of filling memory.
constexpr Int MAX_READ_BYTES = Int{256} << 20;

/// The bytes of the file at `path`. Errors are "net.quorv.error.io" naming the path and the
/// system's reason: "Cannot read PATH: Is a directory", "...: Permission denied", or
/// "...: larger than 268435456 bytes" past MAX_READ_BYTES.
Result<std::string> ReadWholeFile(const std::string& path);

/// Writes `text` into `buffer` the way the text getters of the services do: all of it and a
/// NUL when it fits, else as much as fits before a NUL. Returns the length of `text`.
inline Int WriteTextToBuffer(std::string_view text, char* buffer, Int capacity) {
    if (buffer && capacity > 0) {
        size_t n = text.size() < static_cast<size_t>(capacity) ? text.size()
                                                               : static_cast<size_t>(capacity - 1);
        if (n > 0) std::memcpy(buffer, text.data(), n);
        buffer[n] = 0;
    }
    return static_cast<Int>(text.size());
}

}  // namespace quorv::host
