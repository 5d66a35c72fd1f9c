#pragma once
/// Observables: a list of observers that a notification reaches. Made by class id with a
/// combiner; the run-all combiner calls every observer. Adding an observer gives a counted
/// handle, and dropping the last reference of the handle ends the subscription.
///
/// Thread safety: any thread may add, drop and notify at once; an observer runs on the
/// notifying thread, without any lock of the observable held.

#include "quorv/result.h"
#include "quorv/services.h"

namespace quorv {

struct ObservableObject;
struct ObserverHandleObject;

/// Called with the value of a notification.
using ObserverFunction = void (*)(void* user, Bool value);

inline constexpr const char* OBSERVABLE_CLASS_ID = "net.quorv.class.observable";
inline constexpr const char* OBSERVABLE_COMBINER_RUNALL_ID =
    "net.quorv.component.observablecombinerrunall";
inline constexpr const char* OBSERVER_CLASS_ID = "net.quorv.class.observerobject";

// clang-format off
#define QUORV_OBSERVABLE_METHODS(M) \
    M(Result<ObservableObject*>, Create, (const char* classId, const char* combinerId, const char* observerClassId), (classId, combinerId, observerClassId)) \
    M(void, Free, (ObservableObject* observable), (observable)) \
    M(Result<ObserverHandleObject*>, AddObserver, (ObservableObject* observable, ObserverFunction function, void* user), (observable, function, user)) \
    M(Result<void>, Notify, (ObservableObject* observable, Bool value), (observable, value)) \
    M(Int, GetObserverCount, (const ObservableObject* observable), (observable))
// clang-format on
/// `Create` knows the class "net.quorv.class.observable" with the combiner
/// "net.quorv.component.observablecombinerrunall" on "net.quorv.class.observerobject"; another id
/// is an illegal-argument error naming it. Objects and handles are counted (quorv/ref.h).
QUORV_NONVIRTUAL_INTERFACE(ObservableInterface, "net.quorv.interface.observable",
                           QUORV_OBSERVABLE_METHODS);

}  // namespace quorv
