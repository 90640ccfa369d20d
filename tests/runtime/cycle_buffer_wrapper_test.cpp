#include "runtime/cycle_buffer_wrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include "runtime/byte_sequence.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::Bytes;
using test::FakeTime;
using test::sequence;

class CycleBufferWrapperTest : public testing::Test {
protected:
    CycleBufferWrapperTest() { FakeTime::reset(); }
    ~CycleBufferWrapperTest() override {
        ring_.abort(true);
        FakeTime::reset();
    }

    void init(int size) { ASSERT_EQ(ring_.init(size, nullptr, nullptr), 0); }

    // Nobody has to poll.
    void initTold(int size, int (*callback)(void*) = nullptr, void* opaque = nullptr) {
        ASSERT_EQ(ring_.init(size, callback, opaque, CycleBufferWrapper::CallingOff::Told), 0);
    }

    int write(Bytes bytes) { return ring_.write(bytes.data(), static_cast<int>(bytes.size())); }

    Bytes readNoBlock(int count) {
        Bytes bytes(static_cast<size_t>(count));
        bytes.resize(static_cast<size_t>(std::max(0, ring_.read_noblock(bytes.data(), count))));
        return bytes;
    }

    void writeOnAThread(Bytes bytes) {
        transfer_ = std::async(std::launch::async, [this, bytes] { return write(bytes); });
    }

    // Into received_.
    void readOnAThread(int count) {
        received_.resize(static_cast<size_t>(count));
        transfer_ = std::async(std::launch::async, [this, count] { return ring_.read(received_.data(), count); });
    }

    CycleBufferWrapper ring_;
    Bytes received_;
    std::future<int> transfer_;  // ended by the destructor if a test has failed
};

TEST_F(CycleBufferWrapperTest, MovesWhatFitsWithoutSleeping) {
    init(8);
    EXPECT_EQ(write(sequence(7)), 7);
    EXPECT_EQ(ring_.availableReadSize(), 7);
    Bytes bytes(7);
    EXPECT_EQ(ring_.read(bytes.data(), 7), 7);
    EXPECT_EQ(bytes, sequence(7));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(CycleBufferWrapperTest, PollsForLittleRoomEveryFiveMilliseconds) {
    init(8);
    FakeTime::setManual(true);
    writeOnAThread(sequence(20));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(ring_.availableReadSize(), 7);
    EXPECT_EQ(readNoBlock(2), sequence(2));

    FakeTime::advanceMs(4);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    EXPECT_EQ(ring_.availableReadSize(), 5);
    FakeTime::advanceMs(1);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(readNoBlock(20), sequence(7, 3));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(readNoBlock(20), sequence(7, 10));
    EXPECT_EQ(transfer_.get(), 20);
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{5, 5, 5}));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'005);
}

TEST_F(CycleBufferWrapperTest, PollsForFewBytesEveryFiveMilliseconds) {
    init(8);
    FakeTime::setManual(true);
    readOnAThread(9);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(write(sequence(2)), 2);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    FakeTime::advanceMs(5);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(write(sequence(7, 3)), 7);
    EXPECT_EQ(transfer_.get(), 9);
    EXPECT_EQ(received_, sequence(9));
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{5, 5}));
}

TEST_F(CycleBufferWrapperTest, AWriteGivesUpWhenNothingIsTakenForAsLongAsItsPatience) {
    initTold(8);
    ring_.setPatience(100);
    FakeTime::setManual(true);
    writeOnAThread(sequence(20));
    for (const bool looksAgain : {false, true}) {
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(99);
        if (looksAgain) {
            ring_.lookAgain();
        } else {
            EXPECT_EQ(readNoBlock(4), sequence(4));
        }
    }
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ASSERT_TRUE(FakeTime::runFor(99, 1));
    FakeTime::advanceMs(1);
    EXPECT_EQ(transfer_.get(), 11);
    EXPECT_EQ(ring_.availableReadSize(), 7);
}

TEST_F(CycleBufferWrapperTest, GoesOnAtOnceWithHalfOfTheRingOrWithAllThatItNeeds) {
    initTold(8);
    FakeTime::setManual(true);
    writeOnAThread(sequence(12));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(readNoBlock(2), sequence(2));
    FakeTime::advanceMs(60'000);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    EXPECT_EQ(readNoBlock(1), sequence(1, 3));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(ring_.availableReadSize(), 7);
    EXPECT_EQ(readNoBlock(2), sequence(2, 4));
    EXPECT_EQ(transfer_.get(), 12);
    EXPECT_EQ(FakeTime::sleepCount(), 2);

    readOnAThread(9);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(write(sequence(2, 13)), 2);
    EXPECT_EQ(transfer_.get(), 9);
    EXPECT_EQ(received_, sequence(9, 6));
    EXPECT_EQ(FakeTime::sleepCount(), 3);
}

TEST_F(CycleBufferWrapperTest, HasNothingToMoveForACountBelowOneEvenWhenAborted) {
    init(8);
    ring_.abort(true);
    unsigned char byte = 1;
    EXPECT_EQ(ring_.write(&byte, 0), 0);
    EXPECT_EQ(ring_.write(&byte, -1), 0);
    EXPECT_EQ(ring_.read(&byte, 0), 0);
    EXPECT_EQ(ring_.read(&byte, -1), 0);
}

TEST_F(CycleBufferWrapperTest, AbortEndsABlockedWriteAtOnce) {
    init(8);
    FakeTime::setManual(true);
    writeOnAThread(sequence(20));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ring_.abort(true);
    EXPECT_EQ(transfer_.get(), -1);  // although 7 bytes were moved
    EXPECT_EQ(ring_.availableReadSize(), 7);
}

TEST_F(CycleBufferWrapperTest, AbortEndsABlockedReadAtOnce) {
    init(8);
    FakeTime::setManual(true);
    readOnAThread(3);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ring_.abort(true);
    EXPECT_EQ(transfer_.get(), -1);
}

TEST_F(CycleBufferWrapperTest, IsUsableAgainAfterAnAbort) {
    init(8);
    ring_.abort(true);
    EXPECT_EQ(write(sequence(2)), -1);
    EXPECT_EQ(ring_.availableReadSize(), 0);
    ring_.abort(false);
    EXPECT_EQ(write(sequence(2)), 2);
    EXPECT_EQ(readNoBlock(8), sequence(2));
}

TEST_F(CycleBufferWrapperTest, InitTakesBackAnAbort) {
    init(8);
    ring_.abort(true);
    init(8);
    EXPECT_EQ(write(sequence(2)), 2);
}

TEST_F(CycleBufferWrapperTest, ReadsWithoutBlocking) {
    init(8);
    unsigned char bytes[8] = {};
    EXPECT_EQ(ring_.read_noblock(bytes, 8), 0);
    write(sequence(3));
    EXPECT_EQ(ring_.read_noblock(bytes, 8), 3);
    EXPECT_EQ(bytes[2], 3);
    write(sequence(3));
    ring_.abort(true);
    EXPECT_EQ(ring_.read_noblock(bytes, 8), -1);
    EXPECT_EQ(ring_.read_noblock(bytes, 0), -1);
    EXPECT_EQ(ring_.availableReadSize(), 3);
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

// Answers with what the test says, and counts the questions.
struct Callback {
    std::atomic<int> answer{0};
    std::atomic<int> calls{0};

    static int ask(void* self) {
        auto* callback = static_cast<Callback*>(self);
        ++callback->calls;
        return callback->answer;
    }
};

TEST_F(CycleBufferWrapperTest, AsksItsCallbackBeforeEachStep) {
    Callback callback;
    ASSERT_EQ(ring_.init(8, Callback::ask, &callback), 0);
    EXPECT_EQ(write(sequence(4)), 4);
    EXPECT_EQ(callback.calls, 1);

    FakeTime::setManual(true);
    writeOnAThread(sequence(5));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(callback.calls, 3);  // one for the bytes that fitted, one that found no room
    callback.answer = 2;
    FakeTime::advanceMs(5);
    EXPECT_EQ(transfer_.get(), -1);
    EXPECT_EQ(callback.calls, 4);
}

TEST_F(CycleBufferWrapperTest, RestsUntilItIsToldThatItsCallbackCallsOff) {
    Callback callback;
    initTold(8, Callback::ask, &callback);
    FakeTime::setManual(true);
    writeOnAThread(sequence(20));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::advanceMs(60'000);
    callback.answer = 1;
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    ring_.lookAgain();
    EXPECT_EQ(transfer_.get(), -1);
    EXPECT_EQ(callback.calls, 3);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
}

TEST_F(CycleBufferWrapperTest, CallsOffEveryTransferWhenTheCallbackSaysSo) {
    Callback callback;
    ASSERT_EQ(ring_.init(8, Callback::ask, &callback), 0);
    write(sequence(4));
    callback.answer = -1;
    unsigned char bytes[4] = {};
    EXPECT_EQ(ring_.write(bytes, 1), -1);
    EXPECT_EQ(ring_.read(bytes, 1), -1);
    EXPECT_EQ(ring_.read_noblock(bytes, 1), -1);
    EXPECT_EQ(ring_.availableReadSize(), 4);
    callback.answer = 0;
    EXPECT_EQ(ring_.read(bytes, 4), 4);
}

TEST_F(CycleBufferWrapperTest, CarriesOnAfterAResetBetweenTwoSteps) {
    init(8);
    FakeTime::setManual(true);
    writeOnAThread(sequence(10));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(ring_.reset(), 0);
    EXPECT_EQ(transfer_.get(), 10);
    EXPECT_EQ(readNoBlock(10), sequence(3, 8));
}

TEST_F(CycleBufferWrapperTest, PollsWithoutABlockUntilItIsCalledOff) {
    EXPECT_EQ(ring_.init(-1, nullptr, nullptr), -1);
    FakeTime::setManual(true);
    writeOnAThread(sequence(1));
    ASSERT_TRUE(FakeTime::runFor(500, 1));
    EXPECT_EQ(FakeTime::sleepCount(), 101);
    ring_.abort(true);
    EXPECT_EQ(transfer_.get(), -1);
}

TEST_F(CycleBufferWrapperTest, PassesOverBytesWithoutAnAddressInSeveralSteps) {
    init(8);
    FakeTime::setManual(true);
    transfer_ = std::async(std::launch::async, [this] { return ring_.write(nullptr, 10); });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ring_.reset();
    EXPECT_EQ(transfer_.get(), 10);
}

TEST_F(CycleBufferWrapperTest, CarriesAStreamFromOneThreadToAnother) {
    constexpr int kBytes = 100'000;
    // The clock stands, so a wake-up that is missed is missed for good.
    initTold(1000);
    FakeTime::setManual(true);
    std::thread writer([&] {
        std::mt19937 random(1);
        int sent = 0;
        while (sent < kBytes) {
            const int count = std::min(kBytes - sent, 1 + static_cast<int>(random() % 1500));
            ASSERT_EQ(write(sequence(count, sent)), count);
            sent += count;
        }
    });
    std::mt19937 random(2);
    int got = 0;
    int wrong = 0;
    while (got < kBytes) {
        Bytes bytes(static_cast<size_t>(std::min(kBytes - got, 1 + static_cast<int>(random() % 1500))));
        const bool block = random() % 2 == 0;
        const int count = block ? ring_.read(bytes.data(), static_cast<int>(bytes.size()))
                                : ring_.read_noblock(bytes.data(), static_cast<int>(bytes.size()));
        ASSERT_GE(count, 0);
        for (int i = 0; i < count; ++i) {
            wrong += bytes[static_cast<size_t>(i)] != static_cast<unsigned char>(got + i);
        }
        got += count;
    }
    writer.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(ring_.availableReadSize(), 0);
}

TEST_F(CycleBufferWrapperTest, EndsEveryTransferOfBothThreadsByAborts) {
    init(64);
    std::atomic<bool> stop{false};
    std::atomic<int> calledOff{0};
    const auto transferUntilStopped = [&](auto move) {
        Bytes bytes(200);
        while (!stop) {
            calledOff += move(bytes.data(), static_cast<int>(bytes.size())) == -1;
        }
    };
    std::thread writer(transferUntilStopped, [&](unsigned char* src, int count) { return ring_.write(src, count); });
    std::thread reader(transferUntilStopped, [&](unsigned char* dest, int count) { return ring_.read(dest, count); });
    for (int i = 0; i < 50; ++i) {
        const int before = calledOff;
        ring_.abort(true);
        while (calledOff < before + 2) {
            std::this_thread::yield();
        }
        ring_.reset();
        ring_.abort(false);
    }
    stop = true;
    ring_.abort(true);
    writer.join();
    reader.join();
    EXPECT_GE(calledOff, 100);
}

}  // namespace
}  // namespace kelp
