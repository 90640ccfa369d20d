#pragma once

#include <utility>

namespace kelp {

// Holds a static object that is constructed but not destroyed, so that destructors of other static objects may still
// use it. Its memory goes with the process. May be `constinit` where T allows it.
template <class T>
class NeverDestroyed {
public:
    template <class... Args>
    explicit constexpr NeverDestroyed(Args&&... args) : value_(std::forward<Args>(args)...) {}
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
    constexpr ~NeverDestroyed() {}  // a member of a union is not destroyed by itself

    T& operator*() { return value_; }
    T* operator->() { return &value_; }

private:
    union {
        T value_;
    };
};

}  // namespace kelp
