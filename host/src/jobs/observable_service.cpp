// Observables with the run-all combiner. A handle keeps its observable alive and unsubscribes
// when its last reference goes.
#include <algorithm>
#include <mutex>
#include <string_view>
#include <vector>

#include "host_internal.h"
#include "quorv/observable.h"
#include "services_impl.h"

namespace quorv {

struct ObservableObject {
    std::mutex mutex;
    struct Observer {
        Int id;
        ObserverFunction function;
        void* user;
    };
    std::vector<Observer> observers;
    Int nextId = 1;
};

struct ObserverHandleObject {
    ObservableObject* observable = nullptr;  // holds a reference
    Int id = 0;
    ~ObserverHandleObject() {
        {
            std::lock_guard<std::mutex> lock(observable->mutex);
            auto& o = observable->observers;
            o.erase(
                std::remove_if(o.begin(), o.end(), [this](const auto& x) { return x.id == id; }),
                o.end());
        }
        RemoveReference(observable);
    }
};

}  // namespace quorv

namespace quorv::host {

namespace {

Result<ObservableObject*> Create(const char* classId, const char* combinerId,
                                 const char* observerClassId) {
    auto check = [](const char* given, const char* known) -> Result<void> {
        if (given && std::string_view(given) == known) return OK;
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            FormatMessage("Unknown observable class or component @", {given ? given : "(null)"}));
    };
    QUORV_RETURN_IF_ERROR(check(classId, OBSERVABLE_CLASS_ID));
    QUORV_RETURN_IF_ERROR(check(combinerId, OBSERVABLE_COMBINER_RUNALL_ID));
    QUORV_RETURN_IF_ERROR(check(observerClassId, OBSERVER_CLASS_ID));
    auto* o = NewCountedObject<ObservableObject>(&DeleteCountedObject<ObservableObject>,
                                                 QUORV_SOURCE_LOCATION);
    if (!o) return OutOfMemoryError();
    AddReference(o);
    return o;
}

void Free(ObservableObject* o) { RemoveReference(o); }

Result<ObserverHandleObject*> AddObserver(ObservableObject* o, ObserverFunction function,
                                          void* user) {
    if (!o || !function)
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "Observable or observer missing");
    auto* h = NewCountedObject<ObserverHandleObject>(&DeleteCountedObject<ObserverHandleObject>,
                                                     QUORV_SOURCE_LOCATION);
    if (!h) return OutOfMemoryError();
    AddReference(h);
    AddReference(o);
    h->observable = o;
    std::lock_guard<std::mutex> lock(o->mutex);
    h->id = o->nextId++;
    try {
        o->observers.push_back({h->id, function, user});
    } catch (...) {
        h->id = 0;
        RemoveReference(h);
        return OutOfMemoryError();
    }
    return h;
}

Result<void> Notify(ObservableObject* o, Bool value) {
    if (!o) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "Observable missing");
    std::vector<ObservableObject::Observer> copy;
    {
        std::lock_guard<std::mutex> lock(o->mutex);
        try {
            copy = o->observers;
        } catch (...) {
            return OutOfMemoryError();
        }
    }
    for (const auto& x : copy) x.function(x.user, value);
    return OK;
}

Int GetObserverCount(const ObservableObject* o) {
    if (!o) return 0;
    std::lock_guard<std::mutex> lock(const_cast<ObservableObject*>(o)->mutex);
    return static_cast<Int>(o->observers.size());
}

const ObservableInterface::Slots g_slots{
    .Create = &Create,
    .Free = &Free,
    .AddObserver = &AddObserver,
    .Notify = &Notify,
    .GetObserverCount = &GetObserverCount,
};

}  // namespace

void RegisterObservableService(Host& host) { host.RegisterService<ObservableInterface>(g_slots); }

}  // namespace quorv::host
