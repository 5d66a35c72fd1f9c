#pragma once
/// A reference word whose lowest bit is a lock: readers take the bit by compare-and-swap
/// (backing off while it is taken), add a reference and put the word back, so a reader gets a
/// reference that stays valid even if the word is replaced and the old object dropped at once.
/// Counted objects are 16-aligned, so the bit is free.

#include <atomic>
#include <cstdint>
#include <utility>

#include "quorv/ref.h"
#include "quorv/spinwait.h"

namespace quorv {

/// The lock-bit word itself, for words of other counting schemes (jobs).
class LockBitWord {
public:
    /// Takes the lock bit; answers the word without it.
    std::uintptr_t Acquire() const {
        std::uintptr_t w = _word.load(std::memory_order_relaxed) & ~std::uintptr_t(1);
        SpinWaitRecord wait;
        while (!_word.compare_exchange_weak(w, w | 1, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            if (w & 1) SpinWaitStep(wait);
            w &= ~std::uintptr_t(1);
        }
        return w;
    }
    /// Stores `value` (its lowest bit clear) and so releases the lock bit.
    void Release(std::uintptr_t value) const { _word.store(value, std::memory_order_release); }
    std::uintptr_t Peek() const { return _word.load(std::memory_order_acquire) & ~std::uintptr_t(1); }

private:
    mutable std::atomic<std::uintptr_t> _word{0};
};

template <typename T>
class LockedRefWord {
public:
    LockedRefWord() = default;
    LockedRefWord(const LockedRefWord&) = delete;
    LockedRefWord& operator=(const LockedRefWord&) = delete;
    ~LockedRefWord() { RemoveReference(reinterpret_cast<T*>(_word.Peek())); }

    /// A new reference to the object now held, or null.
    Ref<T> Get() const {
        std::uintptr_t w = _word.Acquire();
        Ref<T> r(reinterpret_cast<T*>(w));
        _word.Release(w);
        return r;
    }

    /// Puts `value` in and hands back what stood there (to be dropped outside any lock).
    Ref<T> Exchange(Ref<T> value) {
        auto in = reinterpret_cast<std::uintptr_t>(value.Disconnect());
        std::uintptr_t old = _word.Acquire();
        _word.Release(in);
        return Ref<T>::Adopt(reinterpret_cast<T*>(old));
    }

    /// True when an object is held (a snapshot).
    bool IsSet() const { return _word.Peek() != 0; }

private:
    LockBitWord _word;
};

}  // namespace quorv
