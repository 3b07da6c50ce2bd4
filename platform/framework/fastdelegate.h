// SPDX-License-Identifier: MIT
// A two-argument delegate: either bound to one object and one of its member functions,
// or empty. Copying is cheap; the delegate holds a plain pointer, so the bound object
// must outlive every call.
#pragma once

#include <functional>

namespace fastdelegate {

template<class P1, class P2, class R>
class FastDelegate2
{
public:
    FastDelegate2() = default;

    template<class X, class Y>
    FastDelegate2(Y *object, R (X::*member)(P1, P2))
        : m_object(static_cast<X *>(object))
        , m_call([object, member](P1 a, P2 b) { return (static_cast<X *>(object)->*member)(a, b); })
    {}

    template<class X, class Y>
    FastDelegate2(const Y *object, R (X::*member)(P1, P2) const)
        : m_object(static_cast<const X *>(object))
        , m_call([object, member](P1 a, P2 b) { return (static_cast<const X *>(object)->*member)(a, b); })
    {}

    bool empty() const { return !m_call; }
    bool operator!() const { return empty(); }
    explicit operator bool() const { return !empty(); }
    void clear() { *this = FastDelegate2(); }

    // The object the delegate is bound to, or nullptr when empty.
    const void *object() const { return m_object; }

    // Calling an empty delegate returns a value-initialised R.
    R operator()(P1 a, P2 b) const
    {
        if (!m_call)
            return R();
        return m_call(a, b);
    }

private:
    const void *m_object = nullptr;
    std::function<R(P1, P2)> m_call;
};

template<class X, class Y, class P1, class P2, class R>
FastDelegate2<P1, P2, R> MakeDelegate(Y *object, R (X::*member)(P1, P2))
{
    return FastDelegate2<P1, P2, R>(object, member);
}

template<class X, class Y, class P1, class P2, class R>
FastDelegate2<P1, P2, R> MakeDelegate(const Y *object, R (X::*member)(P1, P2) const)
{
    return FastDelegate2<P1, P2, R>(object, member);
}

} // namespace fastdelegate
