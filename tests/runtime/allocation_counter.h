#pragma once

#include <cstdint>

namespace kelp::test {

// Watches the calls of operator new on the calling thread; the program that links this replaces the operators.
class AllocationCounter {
public:
    // Calls on this thread since it started.
    static int64_t count();

    // Makes the next call on this thread fail.
    static void failNext();
};

}  // namespace kelp::test
