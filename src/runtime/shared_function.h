#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace kelp {

template <class Signature>
class SharedFunction;

// A function whose copies share one callable: unlike a std::function's, they take no memory. The copies may be called
// from several threads at once if the callable itself may.
template <class Result, class... Args>
class SharedFunction<Result(Args...)> {
public:
    SharedFunction() = default;
    SharedFunction(std::nullptr_t) {}
    template <class Callable>
    requires(!std::is_same_v<std::remove_cvref_t<Callable>, SharedFunction> &&
             std::is_invocable_r_v<Result, Callable&, Args...>) SharedFunction(Callable&& callable)
        : function_(std::make_shared<const std::function<Result(Args...)>>(std::forward<Callable>(callable))) {}

    // Only for one that isn't empty.
    Result operator()(Args... args) const { return (*function_)(std::forward<Args>(args)...); }

    explicit operator bool() const { return function_ != nullptr; }

private:
    std::shared_ptr<const std::function<Result(Args...)>> function_;  // null if empty
};

}  // namespace kelp
