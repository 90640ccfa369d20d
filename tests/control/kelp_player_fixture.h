#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/extern_sync_wrapper.h"
#include "kelp_player/kelp_player.h"
#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"

// Players as a host drives them, in real time: the worker's threads and the sound device take theirs.

namespace kelp {

class KelpPlayerPeer {
public:
    static std::shared_ptr<PlayTask> playTask(KelpPlayer& player) { return player.playTask_; }
    static std::shared_ptr<Worker> worker(KelpPlayer& player) { return player.worker_; }
    static std::shared_ptr<ExternSyncWrapper> wrapper(KelpPlayer& player) { return player.externSyncWrapper_; }
};

namespace test {

template <class Condition>
bool waitUntil(Condition condition, int timeoutMs = 20000) {
    return TaskUnderTest::waitUntil(condition, timeoutMs);
}

// How many threads of this process have that name.
inline int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(entry.path() / "comm");
        std::string comm;
        count += std::getline(file, comm) && comm == name;
    }
    return count;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Notes every event as text, with its numbers, and then does what the test wants done.
class EventRecorder : public KelpPlayerObserver {
public:
    using Player = std::shared_ptr<KelpPlayer>;

    void onVideoSizeUpdated(Player player, int width, int height, int rotate) override {
        note(player, "size", {width, height, rotate});
    }
    void onPrepared(Player player, bool hasVideo, bool hasAudio) override {
        note(player, "prepared", {hasVideo, hasAudio});
    }
    void onFailed(Player player, int errorType, int extraData) override {
        note(player, "failed", {errorType, extraData});
    }
    void onFirstPacket(Player player, int ptsMs) override { note(player, "packet", {ptsMs}); }
    void onFirstVideoFrame(Player player, int ptsMs) override { note(player, "video", {ptsMs}); }
    void onFirstAudioFrame(Player player, int ptsMs) override { note(player, "audio", {ptsMs}); }
    void onCompleted(Player player) override { note(player, "completed", {}); }
    void onDurationUpdated(Player player, int durationMs) override { note(player, "duration", {durationMs}); }

    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    int count(const std::string& start) {
        const auto all = events();
        return static_cast<int>(
            std::count_if(all.begin(), all.end(), [&](const auto& e) { return e.starts_with(start); }));
    }
    bool has(const std::string& start) { return count(start) > 0; }
    // Threads that the events came on, and players that they were about.
    size_t threads() {
        std::lock_guard lock(mutex_);
        return threads_.size();
    }
    std::set<KelpPlayer*> players() {
        std::lock_guard lock(mutex_);
        return players_;
    }

    // Runs on the worker thread with each event's text, after it was noted.
    std::function<void(const Player&, const std::string&)> then;

private:
    void note(const Player& player, const std::string& name, const std::vector<int>& numbers) {
        std::ostringstream text;
        text << name;
        for (const int number : numbers) {
            text << " " << number;
        }
        {
            std::lock_guard lock(mutex_);
            events_.push_back(text.str());
            threads_.insert(std::this_thread::get_id());
            players_.insert(player.get());
        }
        if (then) {
            then(player, text.str());
        }
    }

    std::mutex mutex_;
    std::vector<std::string> events_;
    std::set<std::thread::id> threads_;
    std::set<KelpPlayer*> players_;
};
#pragma GCC diagnostic pop

class KelpPlayerTest : public testing::Test {
protected:
    void SetUp() override {
        // Process-wide things can only be tried out in a process of their own.
        testing::GTEST_FLAG(death_test_style) = "threadsafe";
    }
    void TearDown() override {
        if (player) {
            player->stop();
        }
        player.reset();
    }

    void init() { ASSERT_TRUE(player->init(&recorder)); }

    void raise(int type, int a, int b, int c) { PlayTaskPeer(*task()).raise(type, a, b, c); }
    std::shared_ptr<PlayTask> task() { return KelpPlayerPeer::playTask(*player); }

    // Waits until the worker has run what is queued now.
    void drain() {
        std::atomic<bool> done{false};
        player->runInWorker([&] { done = true; });
        ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    }

    EventRecorder recorder;
    std::shared_ptr<KelpPlayer> player = std::make_shared<KelpPlayer>();
};

}  // namespace test
}  // namespace kelp

// Ends the process of a death test: with 0 if all went well, after a word about what did not.
#define CHILD_EXPECT(condition)                               \
    do {                                                      \
        if (!(condition)) {                                   \
            std::fprintf(stderr, "not so: %s\n", #condition); \
            std::_Exit(1);                                    \
        }                                                     \
    } while (false)
