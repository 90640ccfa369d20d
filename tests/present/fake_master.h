#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "clock/sync_object.h"
#include "support/fake_time.h"

namespace kelp::test {

constexpr int64_t kStart = 1'000'000;  // the fake time at the start of each test

// A master whose reading the test sets; it stands still or runs with the fake time.
class FakeMaster : public SyncObject {
public:
    explicit FakeMaster(int64_t pts = 0, bool running = false) : pts_(pts), running_(running) {}

    int64_t getNoSyncThreshold() override { return threshold; }
    bool isForceSync() override { return forcing; }
    int64_t getSyncPts() override { return pts_ + (running_ ? FakeTime::nowMs() - kStart : 0); }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    void set(int64_t pts) { pts_ = pts; }

    std::atomic<int64_t> threshold{10000};
    std::atomic<bool> forcing{false};

private:
    std::atomic<int64_t> pts_;
    const bool running_;
};

}  // namespace kelp::test
