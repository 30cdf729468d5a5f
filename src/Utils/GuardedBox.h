#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>

namespace ovalto {

// A Guarded value that takes no room until it is first written: one word in place of the value,
// the box's address with its lowest bit as the spin lock. For fields that most objects never
// fill and that exist by the hundred thousand (the QoE attributes of a segment). Reads of an
// unwritten box see a value-initialised T.
template <class T> class GuardedBox {
    static_assert(alignof(T) >= 2, "the lowest bit of the box's address is the lock");

public:
    GuardedBox() = default;
    ~GuardedBox() { std::unique_ptr<T> owned(address(word_.load(std::memory_order_acquire))); }
    GuardedBox(const GuardedBox&) = delete;
    GuardedBox& operator=(const GuardedBox&) = delete;

    T get() const {
        Lock lock(word_);
        return lock.box ? *lock.box : T{};
    }
    void set(T value) {
        auto box = std::make_unique<T>(std::move(value));
        std::unique_ptr<T> previous;
        {
            Lock lock(word_);
            previous.reset(lock.box);
            lock.box = box.release();
        }
        // The previous value is freed here, outside the lock.
    }
    // As Guarded::with; the non-const form makes the value when it is not there yet.
    template <class F> decltype(auto) with(F&& f) {
        Lock lock(word_);
        if (!lock.box) lock.box = std::make_unique<T>().release();
        return std::forward<F>(f)(*lock.box);
    }
    template <class F> decltype(auto) with(F&& f) const {
        Lock lock(word_);
        static const T empty{};
        return std::forward<F>(f)(lock.box ? std::as_const(*lock.box) : empty);
    }

private:
    static T* address(std::uintptr_t word) { return reinterpret_cast<T*>(word & ~std::uintptr_t{1}); }

    // Sets the lock bit and hands out the box it guards; the box it holds when it ends, the one
    // given or another put in its place, is published with the bit cleared.
    struct Lock {
        explicit Lock(std::atomic<std::uintptr_t>& word)
            : word_(word) {
            for (;;) {
                const std::uintptr_t current = word_.fetch_or(1, std::memory_order_acquire);
                if ((current & 1) == 0) {
                    box = address(current);
                    return;
                }
                std::this_thread::yield();
            }
        }
        ~Lock() { word_.store(reinterpret_cast<std::uintptr_t>(box), std::memory_order_release); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        T* box = nullptr;

    private:
        std::atomic<std::uintptr_t>& word_;
    };

    mutable std::atomic<std::uintptr_t> word_{0};
};

} // namespace ovalto
