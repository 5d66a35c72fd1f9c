#pragma once
/// `RaiiObservable`: a list of observers of one delegate type. Adding an observer returns a
/// handle; dropping the handle ends the subscription. The handle holds the observable weakly,
/// so a handle that outlives its observable does nothing when dropped.
///
/// The observers sit in a copy-on-write map from a running id to a counted record, guarded by
/// a read-write lock of the host's lock services. A notification takes a reference to the map
/// under the read lock and walks that snapshot without a lock: a delegate may add or drop
/// observers while it runs, which changes a new copy of the map, not the one being walked.
/// Thread safety: all operations on any thread.

#include <atomic>
#include <map>
#include <tuple>

#include "quorv/counted.h"
#include "quorv/delegate.h"
#include "quorv/rwlock.h"
#include "quorv/systemallocator.h"
#include "quorv/weakref.h"

namespace quorv::nodes {

/// A subscription; dropping the last reference ends it.
class ObserverHandle {
public:
    virtual ~ObserverHandle() = default;
};
using ObserverHandleRef = Ref<ObserverHandle>;

template <typename... A>
class RaiiObservable {
public:
    using ObserverDelegate = Delegate<void(A...)>;

    /// A new observable with its lock; out of memory gives the kind 0 error.
    static Result<Ref<RaiiObservable>> Create() {
        Result<Ref<RaiiObservable>> made = NewCounted<RaiiObservable>();
        if (made.IsError()) return made.GetError();
        Result<RWLock> lock = RWLock::Create(QUORV_SOURCE_LOCATION);
        if (lock.IsError()) return lock.GetError();
        made.GetValue()->_lock = std::move(lock.GetValue());
        return made;
    }

    /// Adds `observer`. With `present` given, the observer is called with it once, under the
    /// write lock, so no later notification reaches it first. Out of memory adds nothing.
    Result<ObserverHandleRef> Add(ObserverDelegate observer,
                                  const std::tuple<A...>* present = nullptr) {
        Result<Ref<Record>> record = NewCounted<Record>(std::move(observer));
        if (record.IsError()) return record.GetError();
        const Int id = _nextId.fetch_add(1, std::memory_order_relaxed);
        WeakRef<RaiiObservable> self{Ref<RaiiObservable>(this)};
        if (!self.IsValid()) return OutOfMemoryError();
        Result<Ref<Handle>> handle = NewCounted<Handle>(std::move(self), id);
        if (handle.IsError()) return handle.GetError();
        ScopedWriteLock lock(_lock);
        Result<void> writable = MakeWritable();
        if (writable.IsError()) {
            handle.GetValue()->Disarm();
            return writable.GetError();
        }
        try {
            _map->observers.emplace(id, record.GetValue());
        } catch (...) {
            handle.GetValue()->Disarm();
            return OutOfMemoryError();
        }
        if (present) std::apply(record.GetValue()->observer, *present);
        return ObserverHandleRef(handle.GetValue().Get());
    }

    /// Calls every observer with `args`, on this thread, with no lock held.
    void Notify(const A&... args) {
        Ref<Map> snapshot;
        {
            ScopedReadLock lock(_lock);
            snapshot = _map;
        }
        if (!snapshot) return;
        for (const auto& [id, record] : snapshot->observers) {
            const Ref<Record> r = record;
            if (r && r->alive.load(std::memory_order_acquire)) r->observer(args...);
        }
    }

    /// Observers added and not yet dropped.
    Int GetCount() const {
        ScopedReadLock lock(_lock);
        return _map ? static_cast<Int>(_map->observers.size()) : 0;
    }

private:
    struct Record {
        explicit Record(ObserverDelegate d) : observer(std::move(d)) {}
        ObserverDelegate observer;
        // Cleared when the handle goes, so a removal that finds no memory to copy the map
        // still silences the observer.
        std::atomic<bool> alive{true};
    };
    using Entry = std::pair<const Int, Ref<Record>>;
    struct Map {
        std::map<Int, Ref<Record>, std::less<Int>, SystemAllocator<Entry>> observers;
    };

    class Handle : public ObserverHandle {
    public:
        Handle(WeakRef<RaiiObservable> o, Int id) : _observable(std::move(o)), _id(id) {}
        ~Handle() override {
            if (!_armed) return;
            if (Ref<RaiiObservable> o = _observable.Lock()) o->Remove(_id);
        }
        void Disarm() { _armed = false; }

    private:
        WeakRef<RaiiObservable> _observable;
        Int _id;
        bool _armed = true;
    };

    // Under the write lock: a private map (a copy when a walk still holds the present one).
    Result<void> MakeWritable() {
        if (_map && !IsShared(_map.Get())) return OK;
        Result<Ref<Map>> copy = NewCounted<Map>();
        if (copy.IsError()) return copy.GetError();
        if (_map) {
            try {
                copy.GetValue()->observers = _map->observers;
            } catch (...) {
                return OutOfMemoryError();
            }
        }
        _map = copy.GetValue();
        return OK;
    }

    void Remove(Int id) {
        Ref<Record> gone;  // dropped after the lock: freeing a delegate runs its module's code
        ScopedWriteLock lock(_lock);
        if (!_map) return;
        auto it = _map->observers.find(id);
        if (it == _map->observers.end()) return;
        gone = it->second;
        gone->alive.store(false, std::memory_order_release);
        if (MakeWritable().IsError()) return;
        _map->observers.erase(id);
        lock.Unlock();
    }

    RWLock _lock;
    Ref<Map> _map;
    std::atomic<Int> _nextId{1};
};

}  // namespace quorv::nodes
