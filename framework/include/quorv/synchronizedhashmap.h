#pragma once
/// A hash map for many threads whose entries stay put: lookups walk lock-free bucket chains,
/// inserts take a short spin lock, and no entry moves or goes away until `Reset`. A walk sees
/// every entry inserted before it started, while other threads go on inserting.
///
/// The table grows by adding a bucket array of twice the size: new entries go into the newest
/// array, lookups search the arrays newest first (a handful at most). Entries live in memory of
/// the system allocator; a failed allocation is the out-of-memory error.

#include <atomic>
#include <new>

#include "quorv/result.h"
#include "quorv/services.h"
#include "quorv/spinwait.h"

namespace quorv {

/// `Hash` is a callable `UInt(const K&)`, `Equal` a callable `bool(const K&, const K&)`.
template <typename K, typename V, typename Hash, typename Equal>
class SynchronizedHashMap {
public:
    struct Entry {
        K key;
        V value;
        UInt hash;
        std::atomic<Entry*> next{nullptr};
        std::atomic<Entry*> nextInOrder{nullptr};  // every entry, newest first, for walks
        Entry(const K& k, UInt h) : key(k), hash(h) {}
    };

    explicit SynchronizedHashMap(Int initialCapacity = 16)
        : _firstCapacity(initialCapacity < 4 ? 4 : initialCapacity) {}
    ~SynchronizedHashMap() { Reset(); }
    SynchronizedHashMap(const SynchronizedHashMap&) = delete;
    SynchronizedHashMap& operator=(const SynchronizedHashMap&) = delete;

    /// The value under `key`, or null. Lock-free.
    V* Find(const K& key) const {
        const UInt h = Hash()(key);
        const Int levels = _levelCount.load(std::memory_order_acquire);
        for (Int l = levels - 1; l >= 0; --l) {
            const Level& level = _levels[l];
            for (Entry* e = level.buckets[h & (level.size - 1)].load(std::memory_order_acquire); e;
                 e = e->next.load(std::memory_order_acquire)) {
                if (e->hash == h && Equal()(e->key, key)) return &e->value;
            }
        }
        return nullptr;
    }

    /// The value under `key`, made (default constructed) when absent. `created` says which.
    Result<V*> FindOrCreate(const K& key, bool* created = nullptr) {
        if (created) *created = false;
        if (V* v = Find(key)) return v;
        ScopedSpinLock lock(_insertLock);
        if (V* v = Find(key)) return v;
        const UInt h = Hash()(key);
        Int levels = _levelCount.load(std::memory_order_relaxed);
        if (levels == 0 || _count.load(std::memory_order_relaxed) >= 2 * _levels[levels - 1].size) {
            if (levels == MAX_LEVELS) return OutOfMemoryError();
            const Int size = levels == 0 ? RoundUp(_firstCapacity) : _levels[levels - 1].size * 2;
            void* block = SystemInterface::Alloc(
                size * static_cast<Int>(sizeof(std::atomic<Entry*>)), QUORV_SOURCE_LOCATION);
            if (!block) return OutOfMemoryError();
            auto* buckets = static_cast<std::atomic<Entry*>*>(block);
            for (Int i = 0; i < size; ++i) new (buckets + i) std::atomic<Entry*>(nullptr);
            _levels[levels].buckets = buckets;
            _levels[levels].size = size;
            _levelCount.store(++levels, std::memory_order_release);
        }
        void* block =
            SystemInterface::Alloc(static_cast<Int>(sizeof(Entry)), QUORV_SOURCE_LOCATION);
        if (!block) return OutOfMemoryError();
        Entry* e;
        try {
            e = new (block) Entry(key, h);
        } catch (...) {
            SystemInterface::Free(block);
            return OutOfMemoryError();
        }
        Level& level = _levels[levels - 1];
        std::atomic<Entry*>& bucket = level.buckets[h & (level.size - 1)];
        e->next.store(bucket.load(std::memory_order_relaxed), std::memory_order_relaxed);
        e->nextInOrder.store(_all.load(std::memory_order_relaxed), std::memory_order_relaxed);
        bucket.store(e, std::memory_order_release);
        _all.store(e, std::memory_order_release);
        _count.fetch_add(1, std::memory_order_relaxed);
        if (created) *created = true;
        return &e->value;
    }

    /// Calls `f(key, value)` for every entry inserted before the walk started.
    template <typename F>
    void ForEach(F&& f) {
        for (Entry* e = _all.load(std::memory_order_acquire); e;
             e = e->nextInOrder.load(std::memory_order_acquire)) {
            f(static_cast<const K&>(e->key), e->value);
        }
    }

    Int GetCount() const { return _count.load(std::memory_order_relaxed); }

    /// Destroys every entry. Not for use while other threads use the map.
    void Reset() {
        Entry* e = _all.exchange(nullptr, std::memory_order_acq_rel);
        while (e) {
            Entry* next = e->nextInOrder.load(std::memory_order_relaxed);
            e->~Entry();
            SystemInterface::Free(e);
            e = next;
        }
        const Int levels = _levelCount.exchange(0, std::memory_order_acq_rel);
        for (Int l = 0; l < levels; ++l) {
            SystemInterface::Free(_levels[l].buckets);
            _levels[l] = Level{};
        }
        _count.store(0, std::memory_order_relaxed);
    }

private:
    static constexpr Int MAX_LEVELS = 40;
    struct Level {
        std::atomic<Entry*>* buckets = nullptr;
        Int size = 0;
    };
    static Int RoundUp(Int n) {
        Int s = 1;
        while (s < n) s *= 2;
        return s;
    }

    Int _firstCapacity;
    Level _levels[MAX_LEVELS];
    std::atomic<Int> _levelCount{0};
    std::atomic<Int> _count{0};
    std::atomic<Entry*> _all{nullptr};
    SpinLock _insertLock;
};

}  // namespace quorv
