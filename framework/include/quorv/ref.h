#pragma once
/// Counted references. Every counted object has a header directly ahead of it whose last word
/// is the count word: references live in bits 4 and up, so adding one adds 16. A drop that finds
/// an earlier value below 32 frees the object; a value above 23 means a second holder exists,
/// which copy-on-write code tests before it writes.

#include <atomic>
#include <utility>

#include "quorv/base.h"

namespace quorv {

/// Destroys and frees a counted object once its last reference is gone.
using DestroyFunc = void (*)(void* object);

/// Header ahead of every counted object. 32 bytes keep the object 16-aligned.
struct ObjectHeader {
    void* owner;                 ///< class object of an instance, or the type of a value
    DestroyFunc destroy;         ///< run when the last reference is dropped
    UInt reserved;               ///< the weak block (quorv/weakref.h), or 0
    std::atomic<UInt> count;     ///< the count word, directly ahead of the object
};
static_assert(sizeof(ObjectHeader) == 32);

constexpr UInt REFERENCE_STEP = 16;

inline ObjectHeader* HeaderOf(const void* object) {
    return reinterpret_cast<ObjectHeader*>(const_cast<char*>(static_cast<const char*>(object)) -
                                           sizeof(ObjectHeader));
}

/// Adds a reference; null is ignored. Thread safe.
inline void AddReference(const void* object) {
    if (object) HeaderOf(object)->count.fetch_add(REFERENCE_STEP, std::memory_order_seq_cst);
}

/// Detaches the weak block of an object whose last reference is gone (quorv/weakref.h).
void ClearWeakBlock(void* object);

/// Drops a reference and destroys the object when it was the last; null is ignored. An object
/// with weak references (a weak block in `reserved`) has its block cleared first.
inline void RemoveReference(const void* object) {
    if (!object) return;
    ObjectHeader* h = HeaderOf(object);
    UInt before = h->count.fetch_add(static_cast<UInt>(-static_cast<Int>(REFERENCE_STEP)),
                                     std::memory_order_seq_cst);
    if (before < 2 * REFERENCE_STEP) {
        if (h->reserved != 0) ClearWeakBlock(const_cast<void*>(object));
        h->destroy(const_cast<void*>(object));
    }
}

/// True when a second holder exists (count word above 23).
inline bool IsShared(const void* object) {
    return object && HeaderOf(object)->count.load(std::memory_order_acquire) > 23;
}

/// Raw count word, for tests and diagnostics.
inline UInt GetCountWord(const void* object) {
    return object ? HeaderOf(object)->count.load(std::memory_order_acquire) : 0;
}

/// Owning handle of a counted object of type T. Copy adds a reference, destruction drops one.
template <typename T>
class Ref {
public:
    Ref() = default;
    Ref(std::nullptr_t) {}
    /// Takes a new reference on `p`.
    explicit Ref(T* p) : _p(p) { AddReference(_p); }
    Ref(const Ref& o) : _p(o._p) { AddReference(_p); }
    Ref(Ref&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
    ~Ref() { RemoveReference(_p); }
    Ref& operator=(Ref o) noexcept {
        std::swap(_p, o._p);
        return *this;
    }

    /// Wraps `p` taking over a reference its creator already holds.
    static Ref Adopt(T* p) {
        Ref r;
        r._p = p;
        return r;
    }
    /// Gives up the reference without dropping it.
    T* Disconnect() { return std::exchange(_p, nullptr); }

    T* Get() const { return _p; }
    T* operator->() const { return _p; }
    T& operator*() const { return *_p; }
    explicit operator bool() const { return _p != nullptr; }
    bool operator==(const Ref& o) const { return _p == o._p; }

private:
    T* _p = nullptr;
};

}  // namespace quorv
