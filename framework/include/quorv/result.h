#pragma once
/// Errors as values. A failing operation creates an error object (id, message with `@`
/// placeholders filled in, source location), hands it to `system::SetCurrentError` and returns
/// the resulting word in a `Result`. No exception crosses a module or host boundary.

#include <initializer_list>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "quorv/literalid.h"
#include "quorv/ref.h"

namespace quorv {

/// The six built-in error kinds; OTHER is an error class built directly by id.
enum class ERRORKIND : Int32 {
    OUTOFMEMORY = 0,
    NULLPTR = 1,
    ILLEGALARGUMENT = 2,
    ILLEGALSTATE = 3,
    FUNCTIONNOTIMPLEMENTED = 4,
    UNRESOLVED = 5,
    OTHER = -1,
};

/// Id text of a built-in kind ("net.quorv.error.outofmemory" ...).
const char* ErrorKindId(ERRORKIND kind);

/// A counted error object. Plain record: it crosses modules.
struct ErrorObject {
    ERRORKIND kind;
    LiteralId id;             ///< "net.quorv.error.illegalargument", "net.quorv.error.io", ...
    char* message;            ///< formatted text, owned; may be null (no message)
    SourceLocation location;  ///< where the error was made
    const char* subject;      ///< the file or object the error concerns (a url); may be null
};

using Error = Ref<ErrorObject>;

/// Replaces each `@` of `pattern` by the next argument, in order. Surplus `@` stay as they are.
std::string FormatMessage(std::string_view pattern, std::initializer_list<std::string_view> args);

/// Creates an error of a built-in kind and makes it the thread's current error. Out of memory
/// gives the process-wide out-of-memory error. Never fails.
Error MakeError(ERRORKIND kind, const SourceLocation& loc, std::string_view message = {});
/// Creates an error of another class ("net.quorv.error.io" ...), naming what it concerns
/// (a url text) when `subject` is given.
Error MakeErrorWithId(const char* id, const SourceLocation& loc, std::string_view message = {},
                      std::string_view subject = {});
/// The shared out-of-memory error, which needs no memory of its own.
Error OutOfMemoryError();

/// "id: message, in subject (file:line)", the readable form of an error.
std::string ErrorToString(const ErrorObject* e);

/// Marker for returning success from a `Result<void>` function.
struct OkType {};
inline constexpr OkType OK{};

template <typename T>
class Result;

/// Result without a value: one word, null on success.
template <>
class [[nodiscard]] Result<void> {
public:
    Result(OkType) {}
    Result(Error e) : _error(e.Disconnect()) {}
    Result(const Result& o) : _error(o._error) { AddReference(_error); }
    Result(Result&& o) noexcept : _error(std::exchange(o._error, nullptr)) {}
    Result& operator=(Result o) noexcept {
        std::swap(_error, o._error);
        return *this;
    }
    ~Result() { RemoveReference(_error); }
    /// The unresolved error, answer of a slot the host could not bind.
    static Result Unresolved();

    bool IsOk() const { return _error == nullptr; }
    bool IsError() const { return _error != nullptr; }
    explicit operator bool() const { return _error == nullptr; }
    ErrorObject* GetErrorPointer() const { return _error; }
    Error GetError() const { return Error(_error); }

private:
    ErrorObject* _error = nullptr;
};

/// Result with a value: the error word and the value.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(const T& v) : _value(v) {}
    Result(T&& v) : _value(std::move(v)) {}
    Result(Error e) : _error(e.Disconnect()), _value() {}
    Result(const Result<void>& r) : _error(r.GetError().Disconnect()), _value() {}
    Result(const Result& o) : _error(o._error), _value(o._value) { AddReference(_error); }
    Result(Result&& o) noexcept : _error(std::exchange(o._error, nullptr)), _value(std::move(o._value)) {}
    Result& operator=(Result o) noexcept {
        std::swap(_error, o._error);
        std::swap(_value, o._value);
        return *this;
    }
    ~Result() { RemoveReference(_error); }
    static Result Unresolved() { return Result(Result<void>::Unresolved().GetError()); }

    bool IsOk() const { return _error == nullptr; }
    bool IsError() const { return _error != nullptr; }
    explicit operator bool() const { return _error == nullptr; }
    ErrorObject* GetErrorPointer() const { return _error; }
    Error GetError() const { return Error(_error); }
    /// The value; the zero form of T after an error.
    T& GetValue() & { return _value; }
    const T& GetValue() const& { return _value; }
    T&& GetValue() && { return std::move(_value); }

private:
    ErrorObject* _error = nullptr;
    T _value;
};

template <typename T>
struct IsResultType : std::false_type {};
template <typename T>
struct IsResultType<Result<T>> : std::true_type {};

}  // namespace quorv

/// Returns the error of a `Result` expression from the enclosing function.
#define QUORV_RETURN_IF_ERROR(expr)                                \
    do {                                                           \
        auto&& quorv_r_ = (expr);                                  \
        if (quorv_r_.IsError()) return quorv_r_.GetError();        \
    } while (0)
