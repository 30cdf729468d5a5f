#pragma once

#include <atomic>
#include <thread>
#include <utility>

namespace ovalto {

// A value that concurrent readers and writers may share. The presentation model is written by
// playlist parses while segment requests read it, so every field is one of these: each access
// copies under a tiny spin lock (critical sections are a few word copies, so spinning beats
// parking, and the lock costs one byte per field).
template <class T> class Guarded {
public:
    Guarded() = default;
    explicit Guarded(T value)
        : value_(std::move(value)) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    T get() const {
        Lock lock(flag_);
        return value_;
    }
    void set(T value) {
        Lock lock(flag_);
        value_ = std::move(value);
    }
    // Runs `f` on the value under the lock, for reads or updates that should not copy it whole.
    // `f` must not touch other Guarded values (no nesting).
    template <class F> decltype(auto) with(F&& f) {
        Lock lock(flag_);
        return std::forward<F>(f)(value_);
    }
    template <class F> decltype(auto) with(F&& f) const {
        Lock lock(flag_);
        return std::forward<F>(f)(std::as_const(value_));
    }

private:
    struct Lock {
        explicit Lock(std::atomic_flag& flag)
            : flag_(flag) {
            while (flag_.test_and_set(std::memory_order_acquire))
                std::this_thread::yield();
        }
        ~Lock() { flag_.clear(std::memory_order_release); }
        std::atomic_flag& flag_;
    };
    mutable std::atomic_flag flag_;
    T value_{};
};

} // namespace ovalto
