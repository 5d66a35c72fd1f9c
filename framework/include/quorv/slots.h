#pragma once
/// Non-virtual interfaces: a table of function pointers per interface, bound by the host at
/// load by method name and signature hash. Each interface is written once as a method list
///
///     #define QUORV_SYSTEM_METHODS(M) M(void*, Alloc, (Int size, const SourceLocation& loc), (size, loc)) ...
///     QUORV_NONVIRTUAL_INTERFACE(SystemInterface, "net.quorv.interface.system", QUORV_SYSTEM_METHODS)
///
/// which gives the slot table layout (`Slots`), the C++ face (static functions that call through
/// the slots), the return-kind bytes, the "Name@hash" run and the zero stubs. The framework
/// defines each table once per module (`QUORV_DEFINE_NONVIRTUAL_INTERFACE`); the host fills a
/// `Slots` value with its own functions, so the compiler checks every signature.

#include <array>
#include <cstdio>
#include <type_traits>

#include "quorv/entity.h"

namespace quorv {

namespace slots_detail {

template <typename R>
constexpr UInt8 ReturnKindOf() {
    using K = UNRESOLVED_RETURN_TYPE;
    if constexpr (std::is_void_v<R>) {
        return static_cast<UInt8>(K::VOID_ZERO);
    } else if constexpr (IsResultType<R>::value) {
        if constexpr (std::is_same_v<R, Result<void>>) return static_cast<UInt8>(K::RESULT_VOID);
        else if constexpr (sizeof(R) <= 16) return static_cast<UInt8>(K::RESULT_INTEGRAL_ZERO);
        else return static_cast<UInt8>(K::RESULT_STACK_ZERO);
    } else if constexpr (std::is_same_v<R, float>) {
        return static_cast<UInt8>(K::FLOAT_ZERO);
    } else if constexpr (std::is_same_v<R, double>) {
        return static_cast<UInt8>(K::DOUBLE_ZERO);
    } else if constexpr (std::is_pointer_v<R>) {
        return static_cast<UInt8>(K::POINTER_TO_ZERO);
    } else if constexpr (std::is_integral_v<R> || std::is_enum_v<R>) {
        return static_cast<UInt8>(K::INTEGRAL_ZERO);
    } else if constexpr (std::is_trivially_copyable_v<R> && sizeof(R) == 16) {
        return static_cast<UInt8>(K::INTEGRAL2X_ZERO);
    } else if constexpr (std::is_default_constructible_v<R>) {
        return static_cast<UInt8>(K::STACK_ZERO);
    } else {
        return static_cast<UInt8>(K::OTHER);
    }
}

/// The zero answer of an unbound slot: the zero form of the return type, or the unresolved
/// error for `Result` kinds.
template <typename F>
struct ZeroStub;
template <typename R, typename... A>
struct ZeroStub<R (*)(A...)> {
    static R Call(A...) {
        if constexpr (std::is_void_v<R>) return;
        else if constexpr (IsResultType<R>::value) return R::Unresolved();
        else return R{};
    }
};

/// Writes "Name@hash" into `out` (NUL-terminated); returns the number of bytes written.
Int WriteSlotName(char* out, const char* name, const char* signature);

}  // namespace slots_detail

/// What the host needs of an interface's table, independent of the module it lives in.
struct SlotDescription {
    const char* interfaceId;
    Int count;
    const char* const* names;       ///< bare method names, in slot order
    const char* const* signatures;  ///< signature texts, hashed into the "Name@hash" run
    const UInt8* returnKinds;
    void* const* stubs;
};

/// Builds the "Name@hash\0..." run for a description into `buffer` (large enough: the names,
/// 18 more bytes per slot). Returns `buffer`.
const char* BuildSlotNameRun(const SlotDescription& d, char* buffer);

/// Defines `record` for a slot table and attaches it to the framework unit of this module.
void DefineFrameworkInterface(NonVirtualInterfaceRecord& record, const SlotDescription& d,
                              void** slots, char* nameBuffer);

}  // namespace quorv

#define QUORV_NV_SLOT_FIELD(R, Name, Params, Args) R(*Name) Params = nullptr;
#define QUORV_NV_INDEX(R, Name, Params, Args) IDX_##Name,
#define QUORV_NV_FORWARD(R, Name, Params, Args) \
    static R Name Params { return slots.Name Args; }
#define QUORV_NV_NAME(R, Name, Params, Args) #Name,
#define QUORV_NV_SIGNATURE(R, Name, Params, Args) #R #Params,
#define QUORV_NV_KIND(R, Name, Params, Args) \
    ::quorv::slots_detail::ReturnKindOf<R>(),
#define QUORV_NV_STUB(R, Name, Params, Args) \
    reinterpret_cast<void*>(&::quorv::slots_detail::ZeroStub<decltype(Slots::Name)>::Call),
#define QUORV_NV_NAMESIZE(R, Name, Params, Args) +sizeof(#Name) + 18

/// Declares a non-virtual interface (see the top of this file).
#define QUORV_NONVIRTUAL_INTERFACE(CLASS, ID, METHODS)                                      \
    struct CLASS {                                                                          \
        static constexpr const char* INTERFACE_ID = ID;                                     \
        struct Slots {                                                                      \
            METHODS(QUORV_NV_SLOT_FIELD)                                                    \
        };                                                                                  \
        enum : ::quorv::Int { METHODS(QUORV_NV_INDEX) COUNT };                              \
        static constexpr ::quorv::Int NAME_RUN_SIZE = 1 METHODS(QUORV_NV_NAMESIZE);         \
        /** The slot table of this module; zero until the host binds it. */                 \
        static Slots slots;                                                                 \
        static ::quorv::NonVirtualInterfaceRecord record;                                   \
        METHODS(QUORV_NV_FORWARD)                                                           \
        static const ::quorv::SlotDescription& Describe() {                                 \
            static const char* const names[] = {METHODS(QUORV_NV_NAME)};                    \
            static const char* const signatures[] = {METHODS(QUORV_NV_SIGNATURE)};          \
            static const ::quorv::UInt8 kinds[] = {METHODS(QUORV_NV_KIND)};                 \
            static void* const stubs[] = {METHODS(QUORV_NV_STUB)};                          \
            static const ::quorv::SlotDescription d{ID, COUNT, names, signatures, kinds, stubs}; \
            return d;                                                                       \
        }                                                                                   \
    };                                                                                      \
    static_assert(sizeof(CLASS::Slots) == CLASS::COUNT * sizeof(void*))

/// Defines the slot table of an interface in this module and its record.
#define QUORV_DEFINE_NONVIRTUAL_INTERFACE(CLASS)                                            \
    CLASS::Slots CLASS::slots{};                                                            \
    ::quorv::NonVirtualInterfaceRecord CLASS::record;                                       \
    namespace {                                                                             \
    char g_nameRun_##CLASS[CLASS::NAME_RUN_SIZE];                                           \
    const bool g_defined_##CLASS = (::quorv::DefineFrameworkInterface(                     \
                                        CLASS::record, CLASS::Describe(),                   \
                                        reinterpret_cast<void**>(&CLASS::slots),            \
                                        g_nameRun_##CLASS),                                 \
                                    true);                                                  \
    }
