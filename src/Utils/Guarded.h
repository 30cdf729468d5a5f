#pragma once

#include <atomic>
#include <concepts>
#include <optional>
#include <thread>
#include <utility>

namespace ovalto {

namespace guarded {

// Holds a one-byte spin lock for its lifetime.
class SpinLock {
public:
    explicit SpinLock(std::atomic_flag& flag)
        : flag_(flag) {
        while (flag_.test_and_set(std::memory_order_acquire))
            std::this_thread::yield();
    }
    ~SpinLock() { flag_.clear(std::memory_order_release); }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

private:
    std::atomic_flag& flag_;
};

} // namespace guarded

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
        guarded::SpinLock lock(flag_);
        return value_;
    }
    void set(T value) {
        guarded::SpinLock lock(flag_);
        value_ = std::move(value);
    }
    // Runs `f` on the value under the lock, for reads or updates that should not copy it whole.
    // `f` must not touch other Guarded values (no nesting), except in an order that nothing takes
    // the other way round: a segment list is written out under its lock, setting its segments'
    // indexes.
    template <class F> decltype(auto) with(F&& f) {
        guarded::SpinLock lock(flag_);
        return std::forward<F>(f)(value_);
    }
    template <class F> decltype(auto) with(F&& f) const {
        guarded::SpinLock lock(flag_);
        return std::forward<F>(f)(std::as_const(value_));
    }

private:
    mutable std::atomic_flag flag_;
    T value_{};
};

// An optional integer keeps its presence beside the lock byte instead of in a padded optional:
// 16 bytes instead of 24, for the index that each of a long playlist's segments carries.
template <std::integral I> class Guarded<std::optional<I>> {
public:
    Guarded() = default;
    explicit Guarded(std::optional<I> value) { store(value); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    std::optional<I> get() const {
        guarded::SpinLock lock(flag_);
        return load();
    }
    void set(std::optional<I> value) {
        guarded::SpinLock lock(flag_);
        store(value);
    }
    // As the general form, on a copy that is written back; what `f` returns is returned by value.
    template <class F> auto with(F&& f) {
        guarded::SpinLock lock(flag_);
        std::optional<I> value = load();
        struct WriteBack {
            Guarded& self;
            std::optional<I>& value;
            ~WriteBack() { self.store(value); }
        } writeBack{*this, value};
        return std::forward<F>(f)(value);
    }
    template <class F> auto with(F&& f) const {
        guarded::SpinLock lock(flag_);
        const std::optional<I> value = load();
        return std::forward<F>(f)(value);
    }

private:
    std::optional<I> load() const { return hasValue_ ? std::optional<I>(value_) : std::nullopt; }
    void store(std::optional<I> value) {
        hasValue_ = value.has_value();
        value_ = value.value_or(I{});
    }

    // The value first: the two bytes after it leave padding at the end that a holder may fill.
    I value_{};
    mutable std::atomic_flag flag_;
    bool hasValue_ = false;
};

} // namespace ovalto
