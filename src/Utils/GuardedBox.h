#pragma once

#include "Utils/Guarded.h"

#include <memory>
#include <utility>

namespace ovalto {

// A Guarded value that takes no room until it is first written: a pointer and a lock byte in
// place of the value. For fields that most objects never fill and that exist by the hundred
// thousand (the QoE attributes of a segment). Reads of an unwritten box see a value-initialised T.
template <class T> class GuardedBox {
public:
    T get() const {
        return value_.with([](const std::unique_ptr<T>& box) { return box ? *box : T{}; });
    }
    void set(T value) {
        auto box = std::make_unique<T>(std::move(value));
        value_.with([&](std::unique_ptr<T>& current) { current.swap(box); });
        // The previous value is freed here, outside the lock.
    }
    // As Guarded::with; the non-const form makes the value when it is not there yet.
    template <class F> decltype(auto) with(F&& f) {
        return value_.with([&](std::unique_ptr<T>& box) -> decltype(auto) {
            if (!box) box = std::make_unique<T>();
            return std::forward<F>(f)(*box);
        });
    }
    template <class F> decltype(auto) with(F&& f) const {
        return value_.with([&](const std::unique_ptr<T>& box) -> decltype(auto) {
            static const T empty{};
            return std::forward<F>(f)(box ? std::as_const(*box) : empty);
        });
    }

private:
    Guarded<std::unique_ptr<T>> value_;
};

} // namespace ovalto
