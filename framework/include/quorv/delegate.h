#pragma once
/// Delegates: a callable with its context, owned by the delegate. Copies share one counted
/// context, so a delegate stored in a dictionary, copied out and called on another thread keeps
/// its context alive until the last copy is gone. The context is freed by the code of the
/// binary that made it: drop delegates before that binary is unloaded.

#include <new>
#include <type_traits>
#include <utility>

#include "quorv/counted.h"

namespace quorv {

template <typename Sig>
class Delegate;

template <typename R, typename... A>
class Delegate<R(A...)> {
public:
    Delegate() = default;

    /// A delegate that owns a copy of `f`; out of memory gives the kind 0 error.
    template <typename F>
    static Result<Delegate> Create(F&& f) {
        using Fn = std::decay_t<F>;
        Result<Ref<Holder<Fn>>> h = NewCounted<Holder<Fn>>(std::forward<F>(f));
        if (h.IsError()) return h.GetError();
        Delegate d;
        d._context = Ref<Context>(h.GetValue().Get());
        return d;
    }

    explicit operator bool() const { return static_cast<bool>(_context); }
    bool IsEmpty() const { return !_context; }
    /// Calls the callable; an empty delegate does nothing and answers the zero form of R.
    R operator()(A... a) const {
        if (!_context) return R();
        return _context->call(_context.Get(), std::forward<A>(a)...);
    }
    /// Same callable context (delegates compare by identity).
    bool operator==(const Delegate& o) const { return _context.Get() == o._context.Get(); }
    bool operator<(const Delegate& o) const { return _context.Get() < o._context.Get(); }
    const void* GetContext() const { return _context.Get(); }

private:
    struct Context {
        R (*call)(const Context* self, A... a);
    };
    template <typename Fn>
    struct Holder : Context {
        template <typename G>
        explicit Holder(G&& g) : Context{&Call}, fn(std::forward<G>(g)) {}
        static R Call(const Context* self, A... a) {
            return static_cast<const Holder*>(self)->fn(std::forward<A>(a)...);
        }
        // The context is shared by copies that may be called from several threads at once.
        mutable Fn fn;
    };

    Ref<Context> _context;
};

}  // namespace quorv

template <typename R, typename... A>
struct std::hash<quorv::Delegate<R(A...)>> {
    std::size_t operator()(const quorv::Delegate<R(A...)>& d) const {
        return std::hash<const void*>()(d.GetContext());
    }
};
