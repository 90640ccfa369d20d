#include "runtime/shared_function.h"

#include <gtest/gtest.h>

#include <memory>

#include "runtime/allocation_counter.h"

namespace kelp {
namespace {

TEST(SharedFunction, IsEmptyWithoutACallable) {
    SharedFunction<int(int)> function;
    EXPECT_FALSE(function);
    function = [](int number) { return number + 1; };
    EXPECT_TRUE(function);
    function = nullptr;
    EXPECT_FALSE(function);
}

TEST(SharedFunction, PassesArgumentsAndResult) {
    const SharedFunction<std::unique_ptr<int>(std::unique_ptr<int>)> function = [](std::unique_ptr<int> number) {
        ++*number;
        return number;
    };
    EXPECT_EQ(*function(std::make_unique<int>(6)), 7);
}

TEST(SharedFunction, SharesItsCallableWithItsCopies) {
    auto sum = std::make_shared<int>(0);
    SharedFunction<void(int)> function = [sum](int number) { *sum += number; };
    auto copy = function;
    function(1);
    copy(10);
    EXPECT_EQ(*sum, 11);
    EXPECT_EQ(sum.use_count(), 2);
    function = nullptr;
    copy(100);
    EXPECT_EQ(*sum, 111);
    copy = nullptr;
    EXPECT_EQ(sum.use_count(), 1);
}

TEST(SharedFunction, IsCopiedWithoutMemory) {
    const SharedFunction<int()> function = [owned = std::make_shared<int>(3)] { return *owned; };
    const int64_t before = test::AllocationCounter::count();
    const auto copy = function;
    EXPECT_EQ(test::AllocationCounter::count(), before);
    EXPECT_EQ(copy(), 3);
}

}  // namespace
}  // namespace kelp
