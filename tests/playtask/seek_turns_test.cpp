#include "playtask/seek_turns.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/sanitizers.h"

// Whose turn it is among seeks: the table of the header cell by cell, and every short sequence of calls beside a model
// that is made in another way.

namespace kelp::test {
namespace {

using Next = SeekTurns::Next;

constexpr int kNoTarget = -1;

std::string say(const std::optional<Next>& next) {
    return next ? "next " + std::to_string(next->timeMs) + " of " + std::to_string(next->waiting) : "nothing";
}

// What can be seen of it: the target and how many wait.
std::string state(const SeekTurns& turns) {
    return std::to_string(turns.target().value_or(kNoTarget)) + "/" + std::to_string(turns.waiting());
}

class SeekTurnsTest : public testing::TestWithParam<SeekRule> {
protected:
    bool isExact() const { return GetParam() == SeekRule::Exact; }

    // A seek to 100 in the phase named, with one to 200 that waits behind it if it runs.
    void bring(SeekTurns& turns, const std::string& phase) {
        if (phase == "Idle") {
            return;
        }
        EXPECT_FALSE(turns.request(100));
        if (phase == "Due") {
            return;
        }
        turns.start(100);
        EXPECT_TRUE(turns.request(200));
        if (phase == "Read") {
            turns.taken();
        } else if (phase == "Arrived") {
            turns.arrived();
        }
    }

    LogCapture quiet{-1};
};

INSTANTIATE_TEST_SUITE_P(, SeekTurnsTest, testing::Values(SeekRule::Standard, SeekRule::Exact),
                         [](const auto& rule) { return rule.param == SeekRule::Exact ? "Exact" : "Standard"; });

TEST_P(SeekTurnsTest, DoesWhatTheTableSays) {
    using Call = std::function<std::string(SeekTurns&)>;
    const auto silent = [](void (SeekTurns::*call)()) {
        return [call](SeekTurns& turns) {
            (turns.*call)();
            return std::string();
        };
    };
    struct Row {
        std::string name;
        Call call;
        std::array<std::string, 5> standard;  // the answer and the state behind it, by phase
        std::array<std::string, 5> exact;
    };
    const std::array<std::string, 5> same = {" -1/0", " -1/0", " 100/1", " 100/1", " 100/1"};
    const std::array<std::string, 5> asRequested = {"goes -1/0", "goes -1/0", "waits 100/2", "waits 100/2",
                                                    "waits 100/2"};
    const std::array<std::string, 5> dropped = {"told -1/0", "told -1/0", "told -1/0", "told -1/0", "told -1/0"};
    const std::array<std::string, 5> held = {"told -1/0", "held -1/0", "held 100/1", "held -1/1", "held -1/1"};
    const std::string next = "next 200 of 1 -1/0";
    const Row rows[] = {
        {"request", [](SeekTurns& t) { return t.request(300) ? "waits" : "goes"; }, asRequested, asRequested},
        {"park", [](SeekTurns& t) { return t.park(300) ? "waits" : "goes"; }, asRequested, asRequested},
        {"served", silent(&SeekTurns::served), same, same},
        {"start",
         [](SeekTurns& t) {
             t.start(300);
             return "";
         },
         {" -1/0", " 300/0", " 100/1", " 100/1", " 100/1"},
         {" -1/0", " 300/0", " 100/1", " 100/1", " 100/1"}},
        {"taken", silent(&SeekTurns::taken), same, same},
        {"arrived", silent(&SeekTurns::arrived), same, same},
        {"firstFrame",
         [](SeekTurns& t) { return say(t.firstFrame()); },
         {"nothing -1/0", "nothing -1/0", next, next, next},
         {"nothing -1/0", "nothing -1/0", "nothing 100/1", "nothing 100/1", next}},
        {"noMoreFrame",
         silent(&SeekTurns::noMoreFrame),
         {" -1/0", " -1/0", " -1/1", " -1/1", " -1/1"},
         {" -1/0", " -1/0", " 100/1", " 100/1", " -1/1"}},
        {"completed", [](SeekTurns& t) { return t.completed() ? "told" : "held"; }, dropped, held},
        {"failed",
         [](SeekTurns& t) { return t.failed() ? "told" : "held"; },
         {"told -1/0", "told -1/0", "told 100/1", "told 100/1", "told 100/1"},
         held},
        {"forget",
         silent(&SeekTurns::forget),
         {" -1/0", " -1/0", " -1/0", " -1/0", " -1/0"},
         {" -1/0", " -1/0", " -1/0", " -1/0", " -1/0"}},
    };
    const std::array<std::string, 5> phases = {"Idle", "Due", "Asked", "Read", "Arrived"};
    for (const auto& row : rows) {
        for (size_t i = 0; i < phases.size(); ++i) {
            SCOPED_TRACE(row.name + " in " + phases[i]);
            SeekTurns turns(GetParam());
            bring(turns, phases[i]);
            const std::string answer = row.call(turns);
            EXPECT_EQ(answer + " " + state(turns), (isExact() ? row.exact : row.standard)[i]);
        }
    }
}

// It may come when the seek has reached the play threads, and is none of its frames.
TEST_P(SeekTurnsTest, KnowsTheVeryFirstFrame) {
    SeekTurns turns(GetParam());
    bring(turns, "Arrived");
    EXPECT_EQ(say(turns.firstFrame(SeekTurns::FrameOf::Start)), isExact() ? "nothing" : "next 200 of 1");
    EXPECT_EQ(state(turns), isExact() ? "100/1" : "-1/0");
}

// The phases that can't be told apart by the target: by what may end the seek then.
TEST_P(SeekTurnsTest, PassesTheStagesInOrder) {
    const auto endsAFrame = [&](auto... calls) {
        SeekTurns turns(GetParam());
        turns.request(100);
        turns.start(100);
        ((turns.*calls)(), ...);
        turns.firstFrame();
        return !turns.target();
    };
    EXPECT_EQ(endsAFrame(&SeekTurns::taken), !isExact());
    EXPECT_TRUE(endsAFrame(&SeekTurns::arrived));
    EXPECT_TRUE(endsAFrame(&SeekTurns::taken, &SeekTurns::arrived));
    EXPECT_TRUE(endsAFrame(&SeekTurns::arrived, &SeekTurns::taken));

    SeekTurns turns(GetParam());
    turns.request(100);
    turns.taken();
    turns.arrived();
    turns.start(100);
    EXPECT_EQ(turns.isTaken(), !isExact());  // what was told before it began was another seek's
    turns.taken();
    EXPECT_TRUE(turns.isTaken());
    turns.served();
    turns.start(300);
    EXPECT_EQ(turns.target(), 100);
}

TEST_P(SeekTurnsTest, CountsTheSameTimeTwiceInARowOnce) {
    SeekTurns turns(GetParam());
    turns.request(100);
    turns.start(100);
    turns.arrived();
    for (const int timeMs : {0, 0, 2000, 2000, 0, 2000}) {
        EXPECT_TRUE(turns.request(timeMs));
    }
    EXPECT_EQ(say(turns.firstFrame()), "next 2000 of 4");
}

TEST_P(SeekTurnsTest, DropsAReplayAtAStop) {
    SeekTurns turns(GetParam());
    bring(turns, "Arrived");
    const auto next = turns.firstFrame();
    ASSERT_TRUE(next);
    EXPECT_TRUE(turns.isDue(next->turn));
    turns.forget();
    EXPECT_FALSE(turns.isDue(next->turn));
    turns.request(300);
    EXPECT_FALSE(turns.isDue(next->turn));
}

// By the standard rule it asks again, waits behind the newer one, and playback ends at the older target.
TEST_P(SeekTurnsTest, TellsWhetherAReplayWasOvertaken) {
    SeekTurns turns(GetParam());
    bring(turns, "Arrived");
    const auto next = turns.firstFrame();
    ASSERT_TRUE(next);
    EXPECT_FALSE(turns.request(300));
    EXPECT_EQ(turns.isDue(next->turn), !isExact());
    turns.start(300);
    EXPECT_EQ(turns.isDue(next->turn), !isExact());
}

// What stayed behind when the input ended without a frame: by the standard rule it comes after the newer one.
TEST_P(SeekTurnsTest, KeepsWhatWaitsWhenThereIsNoMoreFrame) {
    SeekTurns turns(GetParam());
    bring(turns, "Arrived");
    turns.noMoreFrame();
    EXPECT_EQ(state(turns), "-1/1");
    EXPECT_FALSE(turns.request(300));
    EXPECT_EQ(turns.waiting(), isExact() ? 0 : 1);
    EXPECT_EQ(say(turns.firstFrame()), isExact() ? "nothing" : "next 200 of 1");

    SeekTurns other(GetParam());
    bring(other, "Arrived");
    other.noMoreFrame();
    EXPECT_EQ(say(other.firstFrame()), "next 200 of 1");
    bring(other, "Arrived");
    other.noMoreFrame();
    EXPECT_EQ(other.completed(), !isExact());
    EXPECT_EQ(other.waiting(), 1);
    EXPECT_EQ(say(other.newest()), isExact() ? "next 200 of 1" : "nothing");
    EXPECT_EQ(say(other.newest()), "nothing");
}

// By the standard rule the end of the film drops it, and nobody hears of it.
TEST_P(SeekTurnsTest, HandsOnWhatWaitsWhereTheFilmEnds) {
    SeekTurns turns(GetParam());
    EXPECT_EQ(say(turns.newest()), "nothing");
    bring(turns, "Arrived");
    EXPECT_EQ(say(turns.newest()), "nothing") << "it waits its turn";
    EXPECT_EQ(turns.completed(), !isExact());
    const auto next = turns.newest();
    EXPECT_EQ(say(next), isExact() ? "next 200 of 1" : "nothing");
    if (next) {
        EXPECT_TRUE(turns.isDue(next->turn));
    }
}

TEST_P(SeekTurnsTest, TakesARuleWithTheNextSeekThatGoes) {
    const SeekRule other = isExact() ? SeekRule::Standard : SeekRule::Exact;
    SeekTurns turns(GetParam());
    bring(turns, "Asked");
    turns.setRule(other);
    turns.request(300);
    EXPECT_EQ(turns.rule(), GetParam()) << "it waits";
    EXPECT_EQ(turns.isFrameAwaited(), isExact());
    turns.arrived();
    EXPECT_EQ(turns.positionAt(70), isExact() ? 100 : 70);
    EXPECT_EQ(turns.positionAt(130), 130);
    const auto next = turns.firstFrame();
    ASSERT_TRUE(next);
    EXPECT_FALSE(turns.request(next->timeMs));
    EXPECT_EQ(turns.rule(), other);
    EXPECT_FALSE(turns.isFrameAwaited());
    turns.start(next->timeMs);
    EXPECT_EQ(turns.isFrameAwaited(), !isExact());
    EXPECT_EQ(turns.positionAt(70), 70) << "a frame of before";
}

// The same by lists and flags.
class Model {
public:
    explicit Model(bool exact) : exact_(exact) {}

    bool park(int timeMs) {
        if (!running) {
            return false;
        }
        if (queue.empty() || queue.back() != timeMs) {
            queue.push_back(timeMs);
        }
        return true;
    }
    bool request(int timeMs) {
        if (park(timeMs)) {
            return true;
        }
        onItsWay = true;
        if (exact_) {
            queue.clear();
            replays.clear();
        }
        return false;
    }
    void served() { onItsWay = onItsWay && running; }
    void start(int timeMs) {
        if (onItsWay && !running) {
            running = true;
            targetMs = timeMs;
            isRead = isArrived = false;
        }
    }
    void taken() { isRead = isRead || running; }
    void arrived() { isArrived = isArrived || running; }
    std::string firstFrame() {
        noMoreFrame();
        if (running || queue.empty()) {
            return "nothing";
        }
        const std::string said = "next " + std::to_string(queue.back()) + " of " + std::to_string(queue.size());
        replays.push_back(++lastReplay);
        queue.clear();
        onItsWay = true;
        return said;
    }
    void noMoreFrame() {
        if (running && (!exact_ || isArrived)) {
            running = onItsWay = false;
        }
    }
    bool completed() {
        const bool wasRunning = running;
        if (exact_ && onItsWay && !(running && (isRead || isArrived))) {
            return false;
        }
        if (exact_ || running) {
            running = onItsWay = false;
        }
        if (!exact_ && wasRunning) {
            queue.clear();
        }
        return !exact_ || queue.empty();
    }
    std::string newest() {
        const bool isNext = exact_ && !onItsWay && !running && !queue.empty();
        return isNext ? firstFrame() : "nothing";
    }
    bool failed() { return !exact_ || completed(); }
    void forget() {
        running = onItsWay = false;
        queue.clear();
        replays.clear();
    }
    bool isDue(int replay) const {
        return std::find(replays.begin(), replays.end(), replay) != replays.end() &&
               (!exact_ || (onItsWay && !running));
    }

    bool running = false;
    bool onItsWay = false;  // due or running
    bool isRead = false;
    bool isArrived = false;
    int targetMs = 0;
    int lastReplay = 0;
    std::vector<int> queue;
    std::vector<int> replays;  // posted, by number, and not void

private:
    const bool exact_;
};

TEST_P(SeekTurnsTest, DoesWhatAModelDoes) {
    constexpr int kCalls = 13;
    constexpr int kLength = 6;
    int sequences = 1;
    for (int i = 0; i < kLength; ++i) {
        sequences *= kCalls;
    }
    const int step = KELP_THREAD_SANITIZER ? 29 : 1;  // prime to the number of calls
    for (int number = 0; number < sequences; number += step) {
        SeekTurns turns(GetParam());
        Model model(isExact());
        std::optional<Next> posted;
        bool same = true;
        int rest = number;
        for (int i = 0; i < kLength && same; ++i, rest /= kCalls) {
            const int timeMs = i / 2;
            switch (rest % kCalls) {
                case 0:
                    same = turns.request(timeMs) == model.request(timeMs);
                    break;
                case 1:
                    same = turns.park(timeMs) == model.park(timeMs);
                    break;
                case 2:
                    turns.served();
                    model.served();
                    break;
                case 3:
                    turns.start(timeMs);
                    model.start(timeMs);
                    break;
                case 4:
                    turns.taken();
                    model.taken();
                    break;
                case 5:
                    turns.arrived();
                    model.arrived();
                    break;
                case 6: {
                    const auto next = turns.firstFrame();
                    same = say(next) == model.firstFrame();
                    posted = next ? next : posted;
                    break;
                }
                case 7:
                    turns.noMoreFrame();
                    model.noMoreFrame();
                    break;
                case 8:
                    same = turns.completed() == model.completed();
                    break;
                case 9:
                    same = turns.failed() == model.failed();
                    break;
                case 10:
                    turns.forget();
                    model.forget();
                    break;
                case 11: {
                    const auto next = turns.newest();
                    same = say(next) == model.newest();
                    posted = next ? next : posted;
                    break;
                }
                default:  // the worker comes to the replay that was posted last
                    if (posted && turns.isDue(posted->turn)) {
                        same = model.isDue(model.lastReplay) &&
                               turns.request(posted->timeMs) == model.request(posted->timeMs);
                    }
                    break;
            }
            same = same && turns.target().value_or(kNoTarget) == (model.running ? model.targetMs : kNoTarget) &&
                   turns.waiting() == static_cast<int>(model.queue.size()) &&
                   (!posted || turns.isDue(posted->turn) == model.isDue(model.lastReplay));
        }
        ASSERT_TRUE(same) << "sequence " << number;
    }
}

// A request that comes while the running seek ends is either handed on by that end or goes by itself.
TEST_P(SeekTurnsTest, LosesNoRequest) {
    for (int i = 0; i < 3000; ++i) {
        SeekTurns turns(GetParam());
        turns.request(1);
        turns.start(1);
        turns.arrived();
        std::atomic<bool> go{false};
        std::optional<Next> next;
        std::thread end([&] {
            while (!go) {
            }
            next = turns.firstFrame();
        });
        go = true;
        const bool waits = turns.request(2);
        end.join();
        ASSERT_EQ(waits, next.has_value());
        ASSERT_EQ(turns.waiting(), 0);
        ASSERT_FALSE(turns.target());
    }
}

}  // namespace
}  // namespace kelp::test
