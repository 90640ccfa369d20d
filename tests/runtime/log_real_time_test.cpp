#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "kelp_player/log.h"
#include "runtime/base_thread.h"
#include "runtime/kelp_time.h"

namespace kelp {
namespace {

TEST(LogInRealTime, StampsALineWithTheLocalTimeOfItsWriting) {
    std::string line;
    Log::SetLogCallback([&](const char* text) { line = text; });
    const int64_t beforeMs = KelpTime::getTimeMs();
    Log::Info("Tag", "text\n");
    const int64_t afterMs = KelpTime::getTimeMs();
    Log::SetLogCallback(nullptr);

    std::tm local{};
    int milliseconds = -1;
    int process = 0;
    unsigned int thread = 0;
    int end = 0;
    ASSERT_EQ(
        std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %d-%u %n", &local.tm_year, &local.tm_mon, &local.tm_mday,
                    &local.tm_hour, &local.tm_min, &local.tm_sec, &milliseconds, &process, &thread, &end),
        9)
        << line;
    EXPECT_EQ(line.substr(static_cast<size_t>(end)), "\033[0;39m(Info)\033[0m [Tag]: text\n");
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    const int64_t stampMs = int64_t{std::mktime(&local)} * 1000 + milliseconds;
    EXPECT_GE(stampMs, beforeMs);
    EXPECT_LE(stampMs, afterMs);
    EXPECT_EQ(process, getpid());
    EXPECT_EQ(thread, GET_TID());
}

}  // namespace
}  // namespace kelp
