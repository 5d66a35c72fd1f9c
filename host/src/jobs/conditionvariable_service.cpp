// Latched condition variables on the standard library: once set, a condition stays set, so a
// waiter that comes late returns at once and no wake-up is ever lost.
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <new>

#include "host_internal.h"
#include "quorv/jobs.h"

namespace quorv {

struct ConditionVariableObject {
    std::mutex mutex;
    std::condition_variable changed;
    bool set = false;
};

}  // namespace quorv

namespace quorv::host {

namespace {

// Waits longer than this (about 30 years) are waits without end: the clock arithmetic of a
// deadline further out would overflow.
constexpr Float64 LONGEST_TIMED_WAIT = 1e9;

ConditionVariableObject* Alloc(const SourceLocation&) {
    return new (std::nothrow) ConditionVariableObject();
}

void Free(ConditionVariableObject* condition) { delete condition; }

void Set(ConditionVariableObject* condition) {
    if (!condition) return;
    {
        std::lock_guard<std::mutex> lock(condition->mutex);
        condition->set = true;
    }
    condition->changed.notify_all();
}

Bool IsSet(const ConditionVariableObject* condition) {
    if (!condition) return true;
    auto* c = const_cast<ConditionVariableObject*>(condition);
    std::lock_guard<std::mutex> lock(c->mutex);
    return c->set;
}

Bool Wait(ConditionVariableObject* condition, TimeValue timeout) {
    if (!condition) return true;
    std::unique_lock<std::mutex> lock(condition->mutex);
    const Float64 s = timeout.seconds;
    // A negative (or NaN) timeout only looks; an infinite or absurdly long one waits for `Set`.
    if (!(s > 0)) return condition->set;
    auto isSet = [condition] { return condition->set; };
    if (s >= LONGEST_TIMED_WAIT) {
        condition->changed.wait(lock, isSet);
        return true;
    }
    const auto span = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<Float64>(s));
    return condition->changed.wait_until(lock, std::chrono::steady_clock::now() + span, isSet);
}

const ConditionVariableInterface::Slots g_slots{
    .Alloc = &Alloc,
    .Free = &Free,
    .Set = &Set,
    .Wait = &Wait,
    .IsSet = &IsSet,
};

}  // namespace

void RegisterConditionVariableService(Host& host) {
    host.RegisterService<ConditionVariableInterface>(g_slots);
}

}  // namespace quorv::host
