#pragma once

#include <utility>

namespace ovalto::platform {

// Holds a process-wide object that is never destroyed. Worker threads are detached, so they may
// still use such an object while static destructors run at exit.
template <class T> class NoDestructor {
public:
    template <class... Args>
    explicit NoDestructor(Args&&... args)
        : value_(std::forward<Args>(args)...) {}
    ~NoDestructor() {}
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T& operator*() { return value_; }
    T* operator->() { return &value_; }

private:
    // A union member is not destroyed with its enclosing object.
    union {
        T value_;
    };
};

} // namespace ovalto::platform
