#include "kelp_player/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/allocation_counter.h"
#include "runtime/base_thread.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::AllocationCounter;
using test::FakeTime;
using testing::EndsWith;
using testing::MatchesRegex;

// A line at its time; what follows is the level's label.
constexpr int64_t kNowMs = 1'700'000'000'042;
constexpr char kNow[] = "2023-11-14 17:13:20.042";

// Constructed before every other static object of the program and destroyed after it. Logs from both ends.
struct OutermostLogger {
    OutermostLogger() {
        level = Log::GetLevel();
        Log::SetLogCallback([this](const char* text) { line = text; });
        Log::Info("Outermost", "%s\n", "constructor");
        Log::SetLogCallback(nullptr);
    }
    ~OutermostLogger() {
        if (logAtExit) {
            Log::Info("Outermost", "%s\n", "destructor");
        }
    }

    int level = -1;    // as it was found
    std::string line;  // as the constructor's callback got it
    bool logAtExit = false;
};
OutermostLogger outermostLogger __attribute__((init_priority(101)));

class LogTest : public testing::Test {
protected:
    LogTest() {
        setenv("TZ", "EST5", 1);
        tzset();
        FakeTime::reset(kNowMs);
    }
    ~LogTest() override {
        Log::SetLogCallback(nullptr);
        Log::SetLevel(3);
        unsetenv("TZ");
        tzset();
        FakeTime::reset();
    }

    // Everything up to the label.
    static std::string stamp() {
        char text[128];
        std::snprintf(text, sizeof(text), "%s %d-%.4u ", kNow, static_cast<int>(getpid()), GET_TID());
        return text;
    }

    void captureLines() {
        Log::SetLogCallback([this](const char* line) { lines_.emplace_back(line); });
    }

    // What `body` prints on the console.
    template <class Body>
    static std::string console(Body body) {
        testing::internal::CaptureStdout();
        body();
        return testing::internal::GetCapturedStdout();
    }

    std::vector<std::string> lines_;
};

TEST_F(LogTest, WritesTimeIdsLabelTagAndMessage) {
    Log::SetLevel(4);
    EXPECT_EQ(console([] { Log::Error("Tag", "number %d\n", 1); }),
              stamp() + "\033[1;31m(ERROR)\033[0m [Tag]: number 1\n");
    EXPECT_EQ(console([] { Log::Warn("Tag", "number %d\n", 2); }),
              stamp() + "\033[0;33m(WARN)\033[0m [Tag]: number 2\n");
    EXPECT_EQ(console([] { Log::Info("Tag", "number %d\n", 3); }),
              stamp() + "\033[0;39m(Info)\033[0m [Tag]: number 3\n");
    EXPECT_EQ(console([] { Log::Debug("Tag", "number %d\n", 4); }),
              stamp() + "\033[0;32m(DEBUG)\033[0m [Tag]: number 4\n");
    EXPECT_EQ(console([] { Log::Message("Tag", 0, "number %d\n", 0); }),
              stamp() + "\033[4;31m(FATAL)\033[0m [Tag]: number 0\n");
}

TEST_F(LogTest, HasNoColourForAnUnknownLevel) {
    Log::SetLevel(9);
    EXPECT_EQ(console([] { Log::Message("Tag", 5, "text\n"); }), stamp() + "(NULL) [Tag]: text\n");
    EXPECT_EQ(console([] { Log::Message("Tag", -1, "text\n"); }), stamp() + "(NULL) [Tag]: text\n");
}

TEST_F(LogTest, SendsTheSameLineToACallbackAndNothingToTheConsole) {
    captureLines();
    EXPECT_EQ(console([] { Log::Info("Tag", "number %d\n", 3); }), "");
    EXPECT_EQ(lines_, std::vector<std::string>{stamp() + "\033[0;39m(Info)\033[0m [Tag]: number 3\n"});
}

TEST_F(LogTest, ReturnsToTheConsoleWithoutACallback) {
    captureLines();
    Log::SetLogCallback({});
    EXPECT_THAT(console([] { Log::Info("Tag", "text\n"); }), EndsWith("[Tag]: text\n"));
    EXPECT_TRUE(lines_.empty());
}

TEST_F(LogTest, LeavesOutDebugByDefault) {
    captureLines();
    EXPECT_EQ(Log::GetLevel(), 3);
    Log::Debug("Tag", "no\n");
    Log::Info("Tag", "yes\n");
    ASSERT_EQ(lines_.size(), 1U);
    EXPECT_THAT(lines_[0], EndsWith("[Tag]: yes\n"));
}

TEST_F(LogTest, DoesNotTouchTheArgumentsOfADisabledLine) {
    captureLines();
    const char* volatile bad = reinterpret_cast<const char*>(1);
    Log::Debug("Tag", "%s\n", bad);
    Log::None("Tag", "%s\n", bad);
    const unsigned char* volatile badBytes = reinterpret_cast<const unsigned char*>(1);
    Log::PrintHex("Tag", badBytes, 10);
    Log::SetLevel(0);
    Log::Info("Tag", "%s\n", bad);
    Log::Warn("Tag", "%s\n", bad);
    Log::Error("Tag", "%s\n", bad);
    Log::Message("Tag", 1, "%s\n", bad);
    Log::MessageWithNewLine("Tag", 1, "%s\n", bad);
    EXPECT_TRUE(lines_.empty());
}

TEST_F(LogTest, WritesEachLevelUpToTheOneThatIsSet) {
    captureLines();
    const int written[] = {0, 1, 2, 3, 4, 5, 5};  // lines by level
    for (int level = -1; level <= 5; ++level) {
        Log::SetLevel(level);
        EXPECT_EQ(Log::GetLevel(), level);
        lines_.clear();
        Log::Message("Tag", 0, "fatal\n");
        Log::Error("Tag", "error\n");
        Log::Warn("Tag", "warn\n");
        Log::Info("Tag", "info\n");
        Log::Debug("Tag", "debug\n");
        EXPECT_EQ(lines_.size(), static_cast<size_t>(written[level + 1])) << "level " << level;
    }
}

TEST_F(LogTest, WritesNothingForNone) {
    captureLines();
    Log::SetLevel(9);
    Log::None("Tag", "text\n");
    EXPECT_TRUE(lines_.empty());
}

TEST_F(LogTest, CutsALongMessageSoThatItStillEndsItsLine) {
    const std::string head = stamp() + "\033[0;39m(Info)\033[0m [Tag]: ";
    for (const size_t length : {size_t{1022}, size_t{1023}, size_t{1024}, size_t{2000}}) {
        const std::string text(length, 'x');
        EXPECT_EQ(console([&] { Log::Info("Tag", "%s", text.c_str()); }), head + std::string(1022, 'x') + "\n")
            << length;
    }
    const std::string fits(1021, 'x');
    EXPECT_EQ(console([&] { Log::Info("Tag", "%s", fits.c_str()); }), head + fits);
}

TEST_F(LogTest, CutsTheMessagesOfAllLevelsAlike) {
    Log::SetLevel(4);
    const std::string text(2000, 'x');
    const std::string end = "]: " + std::string(1022, 'x') + "\n";
    EXPECT_THAT(console([&] { Log::Debug("Tag", "%s", text.c_str()); }), EndsWith(end));
    EXPECT_THAT(console([&] { Log::Warn("Tag", "%s", text.c_str()); }), EndsWith(end));
    EXPECT_THAT(console([&] { Log::Error("Tag", "%s", text.c_str()); }), EndsWith(end));
}

TEST_F(LogTest, WritesADirectMessageOfAnyLengthToTheConsole) {
    const std::string text(5000, 'x');
    EXPECT_THAT(console([&] { Log::Message("Tag", 1, "%s|", text.c_str()); }), EndsWith("]: " + text + "|"));
}

TEST_F(LogTest, CapsAWholeLineForACallback) {
    captureLines();
    const std::string text(2000, 'x');
    const std::string head = stamp() + "\033[0;39m(Info)\033[0m [Tag]: ";
    Log::Info("Tag", "%s", text.c_str());
    Log::Message("Tag", 3, "%s", text.c_str());
    Log::MessageWithNewLine("Tag", 3, "%s", text.c_str());
    for (const auto& line : lines_) {
        EXPECT_EQ(line, head + std::string(1023 - head.size(), 'x'));
    }
    EXPECT_EQ(lines_.size(), 3U);
}

TEST_F(LogTest, CapsATagThatFillsTheWholeLine) {
    captureLines();
    const std::string tag(3000, 't');
    Log::Info(tag.c_str(), "text\n");
    ASSERT_EQ(lines_.size(), 1U);
    EXPECT_EQ(lines_[0].size(), 1023U);
    EXPECT_THAT(lines_[0], EndsWith("ttt"));
}

TEST_F(LogTest, AddsALineFeedOnTheConsoleOnly) {
    EXPECT_THAT(console([] { Log::MessageWithNewLine("Tag", 3, "%d", 7); }), EndsWith("[Tag]: 7\n"));
    EXPECT_THAT(console([] { Log::Message("Tag", 3, "%d", 7); }), EndsWith("[Tag]: 7"));
    captureLines();
    Log::MessageWithNewLine("Tag", 3, "%d", 7);
    ASSERT_EQ(lines_.size(), 1U);
    EXPECT_THAT(lines_[0], EndsWith("[Tag]: 7"));
}

TEST_F(LogTest, PrintsBytesInHexadecimal) {
    Log::SetLevel(4);
    const unsigned char bytes[] = {0x00, 0x0f, 0xff};
    EXPECT_EQ(console([&] { Log::PrintHex("Tag", bytes, 3); }),
              stamp() + "\033[0;32m(DEBUG)\033[0m [Tag]: 00 0f ff \n");
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", bytes, 0); }), EndsWith("[Tag]: \n"));
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", bytes, -3); }), EndsWith("[Tag]: \n"));
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", nullptr, 3); }), EndsWith("[Tag]: \n"));
}

TEST_F(LogTest, PrintsUpTo341Bytes) {
    Log::SetLevel(4);
    const std::vector<unsigned char> bytes(400, 0xab);
    std::string shown;
    for (int i = 0; i < 340; ++i) {
        shown += "ab ";
    }
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", bytes.data(), 400); }), EndsWith("]: " + shown + "ab\n"));
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", bytes.data(), 341); }), EndsWith("]: " + shown + "ab\n"));
    EXPECT_THAT(console([&] { Log::PrintHex("Tag", bytes.data(), 340); }), EndsWith("]: " + shown + "\n"));
}

TEST_F(LogTest, PrintsBytesAtDebugLevelOnly) {
    const unsigned char byte = 1;
    EXPECT_EQ(console([&] { Log::PrintHex("Tag", &byte, 1); }), "");
}

TEST_F(LogTest, AllocatesNothingForALine) {
    int calls = 0;
    Log::SetLogCallback([&](const char*) { ++calls; });
    Log::Info("Tag", "the first line reads the time zone\n");
    const int64_t before = AllocationCounter::count();
    Log::Info("Tag", "%s %d\n", "text", 1);
    Log::Message("Tag", 1, "%s %d\n", "text", 2);
    EXPECT_EQ(AllocationCounter::count(), before);
    EXPECT_EQ(calls, 3);

    Log::SetLogCallback(nullptr);
    int64_t allocated = -1;
    console([&] {
        const int64_t start = AllocationCounter::count();
        Log::Info("Tag", "%s %d\n", "text", 1);
        Log::MessageWithNewLine("Tag", 1, "%s %d\n", "text", 2);
        allocated = AllocationCounter::count() - start;
    });
    EXPECT_EQ(allocated, 0);
}

TEST_F(LogTest, ReleasesItsLockWhenTheCallbackThrows) {
    Log::SetLogCallback([](const char*) { throw std::runtime_error("no"); });
    EXPECT_THROW(Log::Info("Tag", "text\n"), std::runtime_error);
    captureLines();
    Log::Info("Tag", "text\n");
    EXPECT_EQ(lines_.size(), 1U);
}

TEST_F(LogTest, RunsTheCallbackOnTheLoggingThread) {
    std::thread::id id;
    Log::SetLogCallback([&](const char*) { id = std::this_thread::get_id(); });
    std::thread thread([] { Log::Info("Tag", "text\n"); });
    const auto expected = thread.get_id();
    thread.join();
    EXPECT_EQ(id, expected);
}

TEST_F(LogTest, DoesNotMixTheLinesOfThreadsOnTheConsole) {
    constexpr int kLines = 100;
    const std::string output = console([] {
        std::vector<std::thread> threads;
        for (const char* tag : {"One", "Two", "Three"}) {
            threads.emplace_back([tag] {
                for (int i = 0; i < kLines; ++i) {
                    Log::Info(tag, "message of %s\n", tag);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    });
    const std::string form =
        "2023-11-14 17:13:20\\.042 [0-9]+-[0-9]{4,} \033\\[0;39m\\(Info\\)\033\\[0m "
        "(\\[One\\]: message of One|\\[Two\\]: message of Two|\\[Three\\]: message of Three)";
    std::istringstream stream(output);
    int lines = 0;
    for (std::string line; std::getline(stream, line); ++lines) {
        ASSERT_THAT(line, MatchesRegex(form));
    }
    EXPECT_EQ(lines, 3 * kLines);
}

TEST_F(LogTest, RunsTheCallbackOnceAtATime) {
    int inside = 0;  // guarded by the log's own lock: the thread sanitizer would tell
    int calls = 0;
    bool overlapped = false;
    Log::SetLogCallback([&](const char*) {
        overlapped |= ++inside != 1;
        ++calls;
        std::this_thread::yield();
        --inside;
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < 500; ++line) {
                Log::Info("Tag", "text\n");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(calls, 2000);
}

TEST_F(LogTest, ChangesLevelAndCallbackWhileOthersLog) {
    std::atomic<bool> stop{false};
    std::atomic<int> calls{0};
    Log::SetLogCallback([&](const char*) { ++calls; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                Log::Debug("Tag", "text %d\n", 1);
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        Log::SetLevel(i % 5);
        auto owned = std::make_shared<std::string>("kept alive by the callback");
        Log::SetLogCallback([&calls, owned](const char*) { calls += !owned->empty(); });
    }
    Log::SetLevel(4);
    const int before = calls;
    while (calls < before + 100) {
        std::this_thread::yield();
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST_F(LogTest, WorksFromAConstructorOfAStaticObject) {
    EXPECT_EQ(outermostLogger.level, 3);
    EXPECT_THAT(outermostLogger.line, EndsWith("\033[0;39m(Info)\033[0m [Outermost]: constructor\n"));
}

TEST(LogDeathTest, WorksFromADestructorOfAStaticObject) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto logAtExit = [] {
        outermostLogger.logAtExit = true;
        Log::SetLogCallback([owned = std::string("text of the host")](const char* line) {
            std::fprintf(stderr, "%s: %s", owned.c_str(), line);
        });
        std::exit(0);
    };
    EXPECT_EXIT(logAtExit(), testing::ExitedWithCode(0), "text of the host: .*Outermost\\]: destructor");
}

}  // namespace
}  // namespace kelp
