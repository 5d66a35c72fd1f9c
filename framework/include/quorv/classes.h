#pragma once
/// Classes, components and virtual interfaces.
///
/// A virtual interface is written once as a method list and declared with
/// `QUORV_VIRTUAL_INTERFACE(CameraInterface, "net.quorv.render.interface.camera", CAMERA_METHODS)`.
/// That gives the method indices, the interface record (matched by id across modules, never by
/// pointer or RTTI), the caller's handle `CameraInterface::Ref` whose methods call through the
/// class's method table, and `FillMTable<IMPL>`, which writes an implementation's methods.
///
/// A class is made of components. The host builds a class's method tables by letting each
/// component fill them in order, so a later component overrides a method of an earlier one;
/// the overriding method reaches the earlier implementation through `CallSuper`.

#include <atomic>
#include <initializer_list>
#include <type_traits>
#include <utility>

#include "quorv/services.h"

namespace quorv {

/// Opaque instance of a class; counted through quorv/ref.h.
struct ObjectInstance;
using ObjectRef = Ref<ObjectInstance>;
/// Object references as values, e.g. the objects a registry holds; equal when they name one
/// object.
QUORV_DATATYPE_ID(ObjectRef, "net.quorv.objectref");

namespace classes_detail {

template <typename IMPL>
IMPL* StateOf(void* instance, const ComponentInfo* info) {
    return reinterpret_cast<IMPL*>(static_cast<char*>(instance) + info->offset);
}

template <auto F, typename Sig>
struct MethodThunk;
template <typename C, typename R, typename... A, R (C::*F)(A...)>
struct MethodThunk<F, R(A...)> {
    static R Call(void* instance, const ComponentInfo* info, A... a) {
        return (StateOf<C>(instance, info)->*F)(std::forward<A>(a)...);
    }
};
template <typename C, typename R, typename... A, R (C::*F)(A...) const>
struct MethodThunk<F, R(A...)> {
    static R Call(void* instance, const ComponentInfo* info, A... a) {
        return (StateOf<C>(instance, info)->*F)(std::forward<A>(a)...);
    }
};

template <typename Sig>
struct Invoker;
template <typename R, typename... A>
struct Invoker<R(A...)> {
    using Function = R (*)(void*, const ComponentInfo*, A...);
    const MethodEntry& entry;
    void* instance;
    R operator()(A... a) const {
        return reinterpret_cast<Function>(entry.function)(instance, entry.info,
                                                          std::forward<A>(a)...);
    }
};

}  // namespace classes_detail

/// The base object interface every class implements.
const InterfaceRecord& ObjectInterfaceRecord();

/// Calls the implementation of method `index` of `interface` that stood before the component
/// of `info` overrode it.
template <typename Sig>
classes_detail::Invoker<Sig> CallSuper(void* instance, const ComponentInfo* info,
                                       const InterfaceRecord& interface, Int index,
                                       MethodEntry& storage) {
    storage = ClassInterface::GetSuperMethod(info, &interface, index);
    return classes_detail::Invoker<Sig>{storage, instance};
}

/// Creates an instance of the class registered under `id` in `registry`. An unknown id is an
/// illegal-argument error that names the id and the registry.
Result<ObjectRef> CreateObjectById(const LiteralId& registry, const LiteralId& id);

/// The class id of an instance, or an empty id.
LiteralId GetClassIdOf(const ObjectInstance* instance);

/// Generic create, register and unregister functions of a class record (the pattern every
/// class of a module follows).
Result<ClassObject*> CreateClassFromRecord(ClassRecord* record, const SourceLocation& loc);
Result<void> RegisterClassRecord(ClassRecord* record);
void UnregisterClassRecord(ClassRecord* record);

/// Fills the state half of a component record (construct, destruct, copy, size, and the
/// describe function of a static `IMPL::DescribeIO`) for IMPL. A component that writes its
/// method tables by hand sets `fillMTable` itself.
template <typename IMPL>
void FillComponentState(ComponentRecord& record) {
    static_assert(alignof(IMPL) <= 16);
    record.construct = [](void* s) { new (s) IMPL(); };
    record.destruct = [](void* s) { static_cast<IMPL*>(s)->~IMPL(); };
    record.init = nullptr;
    record.free = nullptr;
    record.copy = [](void* d, const void* s) -> Result<void> {
        *static_cast<IMPL*>(d) = *static_cast<const IMPL*>(s);
        return OK;
    };
    record.kind = 1;
    record.stateSize = sizeof(IMPL);
    record.alignment = 8;
    // A component serialises its members through its static `DescribeIO`, when it has one (of
    // the type `DescribeIOFunc`: another one fails to compile here).
    if constexpr (requires { &IMPL::DescribeIO; }) {
        record.describeIO = &IMPL::DescribeIO;
    } else {
        record.describeIO = nullptr;
    }
}

/// Fills a component record for the C++ type IMPL implementing interface I.
template <typename IMPL, typename I>
void FillComponentRecord(ComponentRecord& record) {
    FillComponentState<IMPL>(record);
    record.fillMTable = &I::template FillMTable<IMPL>;
    record.interface = &I::Record();
    // The object base's table plus two words (function, info) per method.
    record.mtableSize = (I::COUNT + 0) * 2 * sizeof(void*);
}

/// Defines a component and a one-component class with the same id in `registry`.
void DefineSimpleClass(ComponentRecord& component, ClassRecord& cls,
                       const ComponentRecord* const* componentList, LiteralId id,
                       LiteralId registry, TranslationUnitRecord& unit, const char* sourceName);

/// Publishes interface I's record (id, base, method names, return kinds) in `unit`, so the
/// host can list the interface by id.
template <typename I>
void PublishVirtualInterface(InterfaceRecord& record, TranslationUnitRecord& unit) {
    const InterfaceRecord& r = I::Record();
    DefineVirtualInterface(record, r.id, r.base, r.returnKinds, r.methodNames, r.methodCount, unit,
                           0);
}

/// The records of a class made of one component of type IMPL implementing interface I, defined
/// and registered under `id` in `registry` when constructed, i.e. one line per class at
/// namespace scope in the class's unit:
///
///     SimpleClass<ParallelCameraImpl, CameraInterface> g_class(g_unit, ID, REGISTRY, __FILE__);
///
/// The object must not be const: the host writes the records' states.
template <typename IMPL, typename I>
class SimpleClass {
public:
    SimpleClass(TranslationUnitRecord& unit, const char* id, const char* registry,
                const char* sourceName) {
        _components[0] = &_component;
        DefineSimpleClass(_component, _class, _components, LiteralId(id), LiteralId(registry),
                          unit, sourceName);
        FillComponentRecord<IMPL, I>(_component);
    }
    SimpleClass(const SimpleClass&) = delete;
    SimpleClass& operator=(const SimpleClass&) = delete;

private:
    ComponentRecord _component;
    ClassRecord _class;
    const ComponentRecord* _components[1] = {nullptr};
};

/// Where a composed class finds one of its bases: a class id in a registry.
struct ClassLocation {
    const char* registry;
    const char* id;
};

/// The record of a class made of the components of its bases, in order, then one component of
/// its own (which may override methods of the bases, reaching them through `CallSuper`).
struct ComposedClassRecord : ClassRecord {
    static constexpr Int MAX_BASES = 4;
    ClassLocation bases[MAX_BASES] = {};
    Int baseCount = 0;
};

/// The class registered under `id` in `registry`. An unknown id is an illegal-argument error
/// that names the id and the registry.
Result<const ClassObject*> FindClass(const LiteralId& registry, const LiteralId& id);

/// Create function of a `ComposedClassRecord`: the bases' components, then the record's own.
Result<ClassObject*> CreateComposedClassFromRecord(ClassRecord* record, const SourceLocation& loc);

/// Offset of the state of component IMPL in the instances that hold it, recorded when a class
/// fills its method tables. A component that asks for its instance must sit at one offset in
/// every class that holds it (a class that would place it elsewhere fails to finalize).
template <typename IMPL>
struct ComponentOffset {
    static inline std::atomic<Int> value{-1};
};

/// The instance whose state of component IMPL is `state` (components of a `ComposedClass`).
template <typename IMPL>
ObjectInstance* InstanceOfState(const IMPL* state) {
    const Int offset = ComponentOffset<IMPL>::value.load(std::memory_order_relaxed);
    return reinterpret_cast<ObjectInstance*>(
        reinterpret_cast<char*>(const_cast<IMPL*>(state)) - offset);
}

/// A class made of the components of `bases` and one component IMPL implementing I, defined
/// and registered under `id` in `registry` when constructed, like `SimpleClass`. `extraFill`
/// writes further method tables of IMPL (overrides of a base's interface).
template <typename IMPL, typename I>
class ComposedClass {
public:
    ComposedClass(TranslationUnitRecord& unit, const char* id, const char* registry,
                  std::initializer_list<ClassLocation> bases, const char* sourceName,
                  ComponentRecord::FillMTableFunc extraFill = nullptr) {
        _components[0] = &_component;
        DefineSimpleClass(_component, _class, _components, LiteralId(id), LiteralId(registry),
                          unit, sourceName);
        FillComponentRecord<IMPL, I>(_component);
        _component.fillMTable = &Fill;
        _class.create = &CreateComposedClassFromRecord;
        for (const ClassLocation& b : bases) {
            if (_class.baseCount < ComposedClassRecord::MAX_BASES) _class.bases[_class.baseCount++] = b;
        }
        s_extraFill = extraFill;
    }
    ComposedClass(const ComposedClass&) = delete;
    ComposedClass& operator=(const ComposedClass&) = delete;

private:
    static bool Fill(ClassObject* cls, const ComponentInfo* info) {
        Int expected = -1;
        if (!ComponentOffset<IMPL>::value.compare_exchange_strong(expected, info->offset) &&
            expected != info->offset) {
            return false;
        }
        if (!I::template FillMTable<IMPL>(cls, info)) return false;
        return !s_extraFill || s_extraFill(cls, info);
    }
    static inline ComponentRecord::FillMTableFunc s_extraFill = nullptr;
    ComponentRecord _component;
    ComposedClassRecord _class;
    const ComponentRecord* _components[1] = {nullptr};
};

}  // namespace quorv

#define QUORV_V_INDEX(R, Name, Params, Args) IDX_##Name,
#define QUORV_V_NAME(R, Name, Params, Args) #Name "\0"
#define QUORV_V_KIND(R, Name, Params, Args)                                \
    static_cast<::quorv::UInt8>(::quorv::slots_detail::ReturnKindOf<R>() | \
                                static_cast<::quorv::UInt8>(               \
                                    ::quorv::UNRESOLVED_RETURN_TYPE::MEMBER_FUNCTION_FLAG)),
#define QUORV_V_CALL(R, Name, Params, Args)                                               \
    R Name Params const {                                                                 \
        return ::quorv::classes_detail::Invoker<R Params>{_mtable[IDX_##Name], _instance} \
            Args;                                                                         \
    }
#define QUORV_V_FILL(R, Name, Params, Args)                                                    \
    table[IDX_##Name] = ::quorv::MethodEntry{                                                  \
        reinterpret_cast<void*>(&::quorv::classes_detail::MethodThunk<&IMPL::Name, R Params>::Call), \
        info};

/// Declares a virtual interface (see the top of this file).
#define QUORV_VIRTUAL_INTERFACE(CLASS, ID, METHODS) \
    QUORV_VIRTUAL_INTERFACE_WITH_BASE(CLASS, ID, ::quorv::ObjectInterfaceRecord(), METHODS)

/// Declares a virtual interface whose record names `BASE_RECORD` (an expression giving an
/// `InterfaceRecord&`) as its base; METHODS lists the base's operations first, then its own.
#define QUORV_VIRTUAL_INTERFACE_WITH_BASE(CLASS, ID, BASE_RECORD, METHODS)                   \
    struct CLASS {                                                                            \
        static constexpr const char* INTERFACE_ID = ID;                                       \
        enum : ::quorv::Int { METHODS(QUORV_V_INDEX) COUNT };                                 \
        /** The interface record of this binary; matched by id. */                            \
        static const ::quorv::InterfaceRecord& Record() {                                     \
            static const ::quorv::UInt8 kinds[] = {METHODS(QUORV_V_KIND)};                    \
            static const ::quorv::InterfaceRecord r = [] {                                    \
                ::quorv::InterfaceRecord x;                                                   \
                x.type = static_cast<::quorv::UInt32>(::quorv::EntityBase::TYPE::INTERFACE);  \
                x.id = ::quorv::LiteralId(ID);                                                \
                x.base = &(BASE_RECORD);                                                      \
                x.methodNames = METHODS(QUORV_V_NAME);                                        \
                x.returnKinds = kinds;                                                        \
                x.methodCount = COUNT;                                                        \
                return x;                                                                     \
            }();                                                                              \
            return r;                                                                         \
        }                                                                                     \
        /** Writes IMPL's methods into the class's table for this interface. */               \
        template <typename IMPL>                                                              \
        static bool FillMTable(::quorv::ClassObject* cls, const ::quorv::ComponentInfo* info) { \
            if (!::quorv::ClassInterface::GetOrCreateMTable(cls, &::quorv::ObjectInterfaceRecord())) \
                return false;                                                                 \
            ::quorv::MethodEntry* table = ::quorv::ClassInterface::GetOrCreateMTable(cls, &Record()); \
            if (!table) return false;                                                         \
            METHODS(QUORV_V_FILL)                                                             \
            return true;                                                                      \
        }                                                                                     \
        /** A counted handle of an instance, called through this interface. */                \
        class Ref {                                                                           \
        public:                                                                               \
            Ref() = default;                                                                  \
            /** The interface of `object`, or an illegal-argument error when its class does   \
                not implement it. */                                                          \
            static ::quorv::Result<Ref> Cast(const ::quorv::ObjectRef& object) {              \
                if (!object) return ::quorv::MakeError(::quorv::ERRORKIND::NULLPTR,           \
                                                       QUORV_SOURCE_LOCATION, "null object"); \
                const ::quorv::MethodEntry* mt =                                              \
                    ::quorv::ClassInterface::GetMTable(object.Get(), &Record());              \
                if (!mt)                                                                      \
                    return ::quorv::MakeError(                                                \
                        ::quorv::ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,           \
                        ::quorv::FormatMessage("Class @ does not implement @",                \
                                               {::quorv::GetClassIdOf(object.Get()).View(),   \
                                                ID}));                                        \
                Ref r;                                                                        \
                r._object = object;                                                           \
                r._instance = object.Get();                                                   \
                r._mtable = mt;                                                               \
                return r;                                                                     \
            }                                                                                 \
            METHODS(QUORV_V_CALL)                                                             \
            const ::quorv::ObjectRef& GetObject() const { return _object; }                   \
            explicit operator bool() const { return _instance != nullptr; }                   \
                                                                                              \
        private:                                                                              \
            ::quorv::ObjectRef _object;                                                       \
            void* _instance = nullptr;                                                        \
            const ::quorv::MethodEntry* _mtable = nullptr;                                    \
        };                                                                                    \
    }
