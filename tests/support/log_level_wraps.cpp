// What stands in front of the log's four entry points in the unit tests' programs (kelp_add_test): every line that any
// test causes is looked at, also one that the level in force leaves out or that nobody catches.
#include <cstdarg>
#include <cstdio>

#include "support/log_levels.h"

#define KELP_WRAP_LOG(level, function)                                            \
    extern "C" void __real_##function(const char* tag, const char* format, ...);  \
    extern "C" void __wrap_##function(const char* tag, const char* format, ...) { \
        char message[1024];                                                       \
        std::va_list args;                                                        \
        va_start(args, format);                                                   \
        std::vsnprintf(message, sizeof(message), format, args);                   \
        va_end(args);                                                             \
        kelp::test::expectDueLevel(level, tag, message);                          \
        __real_##function(tag, "%s", message);                                    \
    }                                                                             \
    static_assert(true)

KELP_WRAP_LOG(1, _ZN4kelp3Log5ErrorEPKcS2_z);
KELP_WRAP_LOG(2, _ZN4kelp3Log4WarnEPKcS2_z);
KELP_WRAP_LOG(3, _ZN4kelp3Log4InfoEPKcS2_z);
KELP_WRAP_LOG(4, _ZN4kelp3Log5DebugEPKcS2_z);
