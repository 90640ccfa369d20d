// Tells at the start of a test program which seed holds its threads up, where somebody chose one.
#include <cstdio>
#include <cstdlib>

#include "support/disturbance.h"

namespace {

[[maybe_unused]] const bool g_told = [] {
    if (std::getenv("KELP_DISTURB_SEED") != nullptr) {
        std::fprintf(stderr, "KELP_DISTURB_SEED=%llu\n",
                     static_cast<unsigned long long>(kelp::test::disturbanceSeed()));
    }
    return true;
}();

}  // namespace
