#include "decode/base_decode_thread.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "decode/recording_decode_thread.h"
#include "kelp_player/codec_info.h"
#include "runtime/base_thread.h"
#include "support/fake_time.h"
#include "support/log_capture.h"
#include "support/private_member.h"

namespace kelp::test {

using QueueMutex = std::mutex BaseDecodeThread::*;
QueueMutex privateMember(PrivateMember<struct QueueMutexTag, QueueMutex>);
template struct ExposeMember<struct QueueMutexTag, &BaseDecodeThread::queueMutex_>;

}  // namespace kelp::test

namespace kelp {
namespace {

using test::FakeTime;
using test::LogCapture;
using test::makePacket;
using test::RecordingDecodeThread;
using testing::ElementsAre;
using testing::IsEmpty;

// The level, with the queue's mutex held by somebody else.
class QueueLevelLook {
public:
    explicit QueueLevelLook(BaseDecodeThread& thread) : thread_(thread) {}
    std::string text() const {
        const std::lock_guard held(thread_.*
                                   privateMember(test::PrivateMember<test::QueueMutexTag, test::QueueMutex>{}));
        return std::to_string(thread_.level().count()) + " " + std::to_string(thread_.level().durationMs());
    }

private:
    BaseDecodeThread& thread_;
};

class BaseDecodeThreadTest : public testing::Test {
protected:
    BaseDecodeThreadTest() {
        FakeTime::reset();
        FakeTime::setManual(true);
    }
    ~BaseDecodeThreadTest() override { FakeTime::reset(); }

    std::vector<std::string> logOf(const std::function<void()>& operation) {
        LogCapture log;
        operation();
        return log.lines();
    }

    RecordingDecodeThread thread_;
};

TEST_F(BaseDecodeThreadTest, IsNotATypeOfThreadToOthers) {
    EXPECT_FALSE((std::is_convertible_v<BaseDecodeThread*, BaseThread*>));
}

TEST_F(BaseDecodeThreadTest, NamesItsThreadAndSaysThatItRuns) {
    LogCapture log;
    std::string name;
    thread_.onDecode = [&](MediaPacket&) {
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof(text));
        name = text;
    };
    thread_.fillPacket(makePacket(1));
    EXPECT_TRUE(thread_.start());
    thread_.waitForEvents(1);
    thread_.stop();
    EXPECT_EQ(name, "Recorder");
    EXPECT_EQ(log.count("[BaseDecodeThread]: [Recorder], Run\n"), 1);
}

TEST_F(BaseDecodeThreadTest, TellsTheQueuesLength) {
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
    EXPECT_EQ(thread_.fillPacket(makePacket(1)), 1);
    EXPECT_EQ(thread_.fillPacket(makePacket(2)), 2);
    EXPECT_EQ(thread_.fillPacket(makePacket(3)), 3);
    EXPECT_EQ(thread_.getQueuePacketSize(), 3);
}

TEST_F(BaseDecodeThreadTest, DecodesOneByOneAndAsksForRoomBeforeEach) {
    for (int i = 1; i <= 3; ++i) {
        thread_.fillPacket(makePacket(i));
    }
    thread_.start();
    thread_.waitForEvents(3);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(thread_.eventsWithQuestions(),
                ElementsAre("can", "decode 1", "can", "decode 2", "can", "decode 3", "can"));
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(BaseDecodeThreadTest, WakesForAPacket) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    thread_.fillPacket(makePacket(9));
    EXPECT_THAT(thread_.waitForEvents(1), ElementsAre("decode 9"));
}

TEST_F(BaseDecodeThreadTest, LetsGoOfAPacketThatWasDecoded) {
    auto packet = makePacket(1);
    const std::weak_ptr<VideoPacket> watched = packet;
    thread_.fillPacket(std::move(packet));
    thread_.start();
    thread_.waitForEvents(1);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_TRUE(watched.expired());
}

TEST_F(BaseDecodeThreadTest, DecodesWithTheQueueFree) {
    int queued = -1;
    thread_.onDecode = [&](MediaPacket&) { queued = thread_.getQueuePacketSize(); };
    thread_.fillPacket(makePacket(1));
    thread_.start();
    thread_.waitForEvents(1);
    thread_.stop();
    EXPECT_EQ(queued, 0);
}

TEST_F(BaseDecodeThreadTest, TellsThatAPacketBesideTheQueueIsBeingDecoded) {
    bool isDecoding = false;
    thread_.onDecode = [&](MediaPacket&) { isDecoding = thread_.isDecoding(); };
    thread_.fillPacket(makePacket(1));
    EXPECT_FALSE(thread_.isDecoding());
    thread_.start();
    thread_.waitForEvents(1);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_FALSE(thread_.isDecoding());
    thread_.stop();
    EXPECT_TRUE(isDecoding);
}

TEST_F(BaseDecodeThreadTest, KeepsPacketsWhileThereIsNoRoomAndServesASeekAllTheSame) {
    std::atomic<bool> room{false};
    thread_.onCanDecode = [&] { return room.load(); };
    thread_.fillPacket(makePacket(1));
    thread_.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    for (int i = 2; i <= 250; ++i) {
        EXPECT_EQ(thread_.fillPacket(makePacket(i)), i);
    }
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    FakeTime::advanceMs(29);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    FakeTime::advanceMs(1);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(FakeTime::sleepCount(), 2);
    EXPECT_THAT(thread_.events(), IsEmpty());

    // The rest ends for it at once.
    thread_.seek(700);
    thread_.fillPacket(makePacket(701));
    EXPECT_THAT(thread_.waitForEvents(1), ElementsAre("seek 700 flush"));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(thread_.getQueuePacketSize(), 1);

    room = true;
    FakeTime::advanceMs(30);
    EXPECT_THAT(thread_.waitForEvents(2), ElementsAre("seek 700 flush", "decode 701"));
    thread_.stop();
}

TEST_F(BaseDecodeThreadTest, RestsUntilFramesAreTakenWhereThatIsTold) {
    std::atomic<bool> room{true};
    std::atomic<int> asked{0};
    thread_.onCanDecode = [&] {
        ++asked;
        return room.load();
    };
    thread_.framesTaken();
    thread_.onDecode = [&](MediaPacket&) { room = false; };
    for (int i = 1; i <= 3; ++i) {
        thread_.fillPacket(makePacket(i));
    }
    thread_.start();
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    EXPECT_EQ(asked, 2);
    // One look for each call that finds nothing, one more for each packet.
    thread_.framesTaken();
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    EXPECT_EQ(asked, 3);
    room = true;
    thread_.framesTaken();
    EXPECT_THAT(thread_.waitForEvents(2), ElementsAre("decode 1", "decode 2"));
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    EXPECT_EQ(asked, 5);
    thread_.seek(700);
    EXPECT_THAT(thread_.waitForEvents(3), ElementsAre("decode 1", "decode 2", "seek 700 flush"));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_.stop();
    EXPECT_EQ(asked, 6);
}

TEST_F(BaseDecodeThreadTest, MissesNoRoomThatComesBetweenItsLookAndItsRest) {
    for (const bool isTold : {false, true}) {
        RecordingDecodeThread thread;
        bool room = false;
        thread.onCanDecode = [&] {
            const bool answer = room;
            if (!answer) {
                room = true;
                thread.framesTaken();
            }
            return answer;
        };
        if (isTold) {
            thread.framesTaken();
        }
        thread.fillPacket(makePacket(1));
        thread.start();
        EXPECT_THAT(thread.waitForEvents(1), ElementsAre("decode 1"));
    }
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(BaseDecodeThreadTest, DropsTheQueueOnASeekAndServesItFirst) {
    auto dropped = makePacket(1);
    const std::weak_ptr<VideoPacket> watched = dropped;
    thread_.fillPacket(std::move(dropped));
    thread_.seek(500);
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
    EXPECT_TRUE(watched.expired());
    thread_.fillPacket(makePacket(501));
    thread_.start();
    thread_.waitForEvents(2);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(thread_.eventsWithQuestions(), ElementsAre("seek 500 flush", "can", "decode 501", "can"));
}

TEST_F(BaseDecodeThreadTest, LogsTheQueuesRangeOnASeek) {
    thread_.fillPacket(makePacket(-90, 1, 90));
    thread_.fillPacket(makePacket(12345, 1, 0));
    thread_.fillPacket(makePacket(179, 1, 90));
    EXPECT_THAT(logOf([&] { thread_.seek(70); }),
                ElementsAre("[BaseDecodeThread]: [Recorder], seek, seekTimeMs:70, current queue size:3\n",
                            "[BaseDecodeThread]: [Recorder], seek, queue range:[-1000, 1988]\n"));
    thread_.fillPacket(makePacket(12345, 1, 0));
    EXPECT_THAT(logOf([&] { thread_.seek(-5); }),
                ElementsAre("[BaseDecodeThread]: [Recorder], seek, seekTimeMs:-5, current queue size:1\n",
                            "[BaseDecodeThread]: [Recorder], seek, queue range:[12345, 12345]\n"));
}

TEST_F(BaseDecodeThreadTest, TakesAnyTimeOfADamagedPacket) {
    for (const int64_t pts : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        for (const int64_t den : {-1, 1}) {
            thread_.fillPacket(makePacket(pts, 40, den));
            EXPECT_EQ(thread_.checkBuffer(0), pts > 0);
            thread_.seek(0);
        }
    }
}

TEST_F(BaseDecodeThreadTest, ServesASeekOfASleeperWithTheNextPacket) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(logOf([&] { thread_.seek(300); }),
                ElementsAre("[BaseDecodeThread]: [Recorder], seek, seekTimeMs:300, current queue size:0\n"));
    // Nothing woke it.
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(thread_.events(), IsEmpty());

    thread_.fillPacket(makePacket(301));
    EXPECT_THAT(thread_.waitForEvents(2), ElementsAre("seek 300 flush", "decode 301"));
}

TEST_F(BaseDecodeThreadTest, EndsASleeperThatHasASeekWaiting) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    thread_.seek(300);
    thread_.stop();
    EXPECT_THAT(thread_.events(), ElementsAre("exit"));
}

TEST_F(BaseDecodeThreadTest, ServesTheLaterOfTwoSeeksAlone) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    thread_.seek(300);
    thread_.seek(200);
    thread_.fillPacket(makePacket(201));
    thread_.fillPacket(makePacket(202));
    thread_.waitForEvents(3);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(thread_.events(), ElementsAre("seek 200 flush", "decode 201", "decode 202"));
}

TEST_F(BaseDecodeThreadTest, ServesASeekThatComesWhileOneIsServed) {
    thread_.onSeeking = [&](int seekTimeMs, bool) {
        if (seekTimeMs == 300) {
            thread_.seek(200);
            thread_.fillPacket(makePacket(201));
        }
    };
    thread_.seek(300);
    thread_.start();
    thread_.waitForEvents(3);
    ASSERT_TRUE(thread_.waitUntilAsleep());
    EXPECT_THAT(thread_.events(), ElementsAre("seek 300 flush", "seek 200 flush", "decode 201"));
}

TEST_F(BaseDecodeThreadTest, ServesASeekBeforeAPacketThatCameBehindIt) {
    bool sought = false;
    thread_.onCanDecode = [&] {
        if (!sought) {
            sought = true;
            thread_.seek(300);
            thread_.fillPacket(makePacket(301));
        }
        return true;
    };
    thread_.start();
    EXPECT_THAT(thread_.waitForEvents(2), ElementsAre("seek 300 flush", "decode 301"));
    thread_.stop();
}

TEST_F(BaseDecodeThreadTest, RefusesEveryTimeWhileTheQueueIsEmpty) {
    EXPECT_THAT(logOf([&] { EXPECT_FALSE(thread_.checkBuffer(0)); }),
                ElementsAre("[BaseDecodeThread]: [Recorder], checkBuffer, seekTimeMs:0, qsz:0\n"));
    EXPECT_THAT(logOf([&] { EXPECT_FALSE(thread_.clearBuffer(0)); }),
                ElementsAre("[BaseDecodeThread]: [Recorder], clearBuffer, seekTimeMs:0, qsz:0\n"));
    EXPECT_THAT(thread_.events(), IsEmpty());
}

TEST_F(BaseDecodeThreadTest, ChecksATimeAgainstTheLastPacketOnly) {
    thread_.fillPacket(makePacket(90000, 1, 90000));
    thread_.fillPacket(makePacket(180000, 1, 90000));
    EXPECT_TRUE(thread_.checkBuffer(999));
    EXPECT_TRUE(thread_.checkBuffer(1000));
    EXPECT_THAT(
        logOf([&] { EXPECT_TRUE(thread_.checkBuffer(2000)); }),
        ElementsAre("[BaseDecodeThread]: [Recorder], checkBuffer, seekTimeMs:2000, qsz:2\n",
                    "[BaseDecodeThread]: [Recorder], checkBuffer, seek time 2000, frame buffer range:[1000, 2000]\n"));
    EXPECT_THAT(
        logOf([&] { EXPECT_FALSE(thread_.checkBuffer(2001)); }),
        ElementsAre("[BaseDecodeThread]: [Recorder], checkBuffer, seekTimeMs:2001, qsz:2\n",
                    "[BaseDecodeThread]: [Recorder], checkBuffer, seek time 2001, frame buffer range:[1000, 2000]\n",
                    "[BaseDecodeThread]: [Recorder], checkBuffer, out of range\n"));
    EXPECT_THAT(thread_.events(), IsEmpty());
}

TEST_F(BaseDecodeThreadTest, ReadsBothEndsInTheFirstPacketsTimeBase) {
    thread_.fillPacket(makePacket(1, 1, 25));
    thread_.fillPacket(makePacket(10, 1, 1000));
    EXPECT_TRUE(thread_.checkBuffer(400));
    EXPECT_FALSE(thread_.checkBuffer(401));
}

TEST_F(BaseDecodeThreadTest, TakesTicksForMillisecondsWithoutATimeBase) {
    for (const int64_t den : {0, -90000}) {
        thread_.fillPacket(makePacket(10, 1, den));
        thread_.fillPacket(makePacket(20, 1, den));
        EXPECT_TRUE(thread_.checkBuffer(20)) << den;
        EXPECT_FALSE(thread_.checkBuffer(21)) << den;
        EXPECT_TRUE(thread_.clearBuffer(20)) << den;
        EXPECT_FALSE(thread_.clearBuffer(21)) << den;
        thread_.seek(0);
    }
}

TEST_F(BaseDecodeThreadTest, TruncatesTheQueuesRange) {
    thread_.fillPacket(makePacket(179, 1, 90000));  // 1.99 ms
    EXPECT_TRUE(thread_.checkBuffer(1));
    EXPECT_FALSE(thread_.checkBuffer(2));
}

TEST_F(BaseDecodeThreadTest, TakesTheEndForAPacketUnlessItIsAskedForWhatIsBefore) {
    for (const int64_t pts : {100, 300, 200}) {
        const auto packet = makePacket(pts);
        packet->data = new unsigned char[1]{};
        packet->size = 1;
        thread_.fillPacket(packet);
    }
    EXPECT_TRUE(thread_.checkBuffer(200));
    EXPECT_FALSE(thread_.endsBehind(200));
    thread_.fillPacket(makePacket(0));
    EXPECT_FALSE(thread_.checkBuffer(200));
    EXPECT_FALSE(thread_.endsBehind(99));
    EXPECT_TRUE(thread_.endsBehind(100));
    EXPECT_TRUE(thread_.endsBehind(300));
    EXPECT_FALSE(thread_.endsBehind(301));
    const auto ofAnotherTrack = makePacket(0);
    ofAnotherTrack->track = std::make_shared<CodecInfo>();
    thread_.fillPacket(ofAnotherTrack);
    EXPECT_FALSE(thread_.endsBehind(200));
}

TEST_F(BaseDecodeThreadTest, AnnouncesASeekInsideTheQueueAndKeepsThePackets) {
    std::thread::id seeker;
    bool locked = false;
    thread_.onSeeking = [&](int, bool) {
        seeker = std::this_thread::get_id();
        auto& mutex = thread_.*privateMember(test::PrivateMember<test::QueueMutexTag, test::QueueMutex>{});
        locked = !std::async(std::launch::async, [&] {
                      const bool taken = mutex.try_lock();
                      if (taken) {
                          mutex.unlock();
                      }
                      return taken;
                  }).get();
    };
    thread_.fillPacket(makePacket(100));
    thread_.fillPacket(makePacket(200));
    EXPECT_THAT(
        logOf([&] { EXPECT_TRUE(thread_.clearBuffer(150)); }),
        ElementsAre("[BaseDecodeThread]: [Recorder], clearBuffer, seekTimeMs:150, qsz:2\n",
                    "[BaseDecodeThread]: [Recorder], clearBuffer, seek time 150, frame buffer range:[100, 200]\n"));
    EXPECT_THAT(thread_.events(), ElementsAre("seek 150"));
    EXPECT_EQ(seeker, std::this_thread::get_id());
    EXPECT_TRUE(locked);
    EXPECT_EQ(thread_.getQueuePacketSize(), 2);

    EXPECT_THAT(
        logOf([&] { EXPECT_FALSE(thread_.clearBuffer(201)); }),
        ElementsAre("[BaseDecodeThread]: [Recorder], clearBuffer, seekTimeMs:201, qsz:2\n",
                    "[BaseDecodeThread]: [Recorder], clearBuffer, seek time 201, frame buffer range:[100, 200]\n",
                    "[BaseDecodeThread]: [Recorder], clearBuffer, out of range\n"));
    EXPECT_THAT(thread_.events(), ElementsAre("seek 150"));
    EXPECT_EQ(thread_.getQueuePacketSize(), 2);
}

TEST_F(BaseDecodeThreadTest, StopsASleeperAtOnce) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    thread_.stop();
    EXPECT_THAT(thread_.events(), ElementsAre("exit"));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(BaseDecodeThreadTest, EndsAheadOfItsStopAndKeepsNothingThatComesThen) {
    thread_.start();
    ASSERT_TRUE(thread_.waitUntilAsleep());
    thread_.prepareStop();
    EXPECT_THAT(thread_.waitForEvents(1), ElementsAre("exit"));
    thread_.fillPacket(makePacket(1));
    thread_.stop();
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
    EXPECT_THAT(thread_.events(), ElementsAre("exit"));
}

TEST_F(BaseDecodeThreadTest, SeesAStopThatCameRightBeforeItsWait) {
    LogCapture log;
    std::promise<void> asked;
    std::promise<void> signalled;
    bool first = true;
    thread_.onCanDecode = [&] {
        if (first) {
            first = false;
            asked.set_value();
            signalled.get_future().wait();
        }
        return true;
    };
    thread_.start();
    asked.get_future().wait();
    std::thread stopper([&] { thread_.stop(); });
    // The stop's signal has gone by when it says that it joins.
    while (!log.has("[Recorder] joinThread\n")) {
        std::this_thread::yield();
    }
    signalled.set_value();
    stopper.join();
    EXPECT_THAT(thread_.events(), ElementsAre("exit"));
}

TEST_F(BaseDecodeThreadTest, DropsWhatWasNotDecodedAndThenExits) {
    auto packet = makePacket(2);
    const std::weak_ptr<VideoPacket> watched = packet;
    std::promise<void> decoding;
    std::promise<void> stopping;
    thread_.onDecode = [&](MediaPacket&) {
        decoding.set_value();
        stopping.get_future().wait();
    };
    thread_.fillPacket(makePacket(1));
    thread_.fillPacket(std::move(packet));
    thread_.start();
    decoding.get_future().wait();
    LogCapture log;
    std::thread stopper([&] { thread_.stop(); });
    while (!log.has("[Recorder] joinThread\n")) {
        std::this_thread::yield();
    }
    stopping.set_value();
    stopper.join();
    EXPECT_THAT(thread_.events(), ElementsAre("decode 1", "exit"));
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
}

TEST_F(BaseDecodeThreadTest, ExitsWithoutATurnWhenItWasStoppedBefore) {
    thread_.stop();
    thread_.fillPacket(makePacket(1));
    thread_.seek(1);
    thread_.fillPacket(makePacket(2));
    thread_.start();
    EXPECT_THAT(thread_.waitForEvents(1), ElementsAre("exit"));
    EXPECT_THAT(thread_.eventsWithQuestions(), ElementsAre("exit"));
    EXPECT_EQ(thread_.getQueuePacketSize(), 0);
}

TEST_F(BaseDecodeThreadTest, StopsWithinARestForWantOfRoom) {
    thread_.onCanDecode = [] { return false; };
    thread_.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_.stop();
    EXPECT_THAT(thread_.events(), ElementsAre("exit"));
    EXPECT_EQ(FakeTime::sleepCount(), 1);
}

// Random interleavings of all that other threads do: nothing may hang, be decoded twice or be lost.
TEST(BaseDecodeThreadStress, SurvivesPacketsSeeksQueriesAndStops) {
    FakeTime::reset();
    constexpr int kRounds = 150;
    for (int round = 0; round < kRounds; ++round) {
        RecordingDecodeThread thread;
        std::atomic<int> decoded{0};
        std::atomic<int> asked{0};
        std::atomic<int> lastServed{-1};
        std::atomic<int> sequence{-1};  // pts of the last packet that was decoded
        std::atomic<bool> disordered{false};
        thread.onCanDecode = [&] { return asked++ % 7 != 3; };
        thread.onDecode = [&](MediaPacket& packet) {
            ++decoded;
            disordered = disordered || packet.pts <= sequence;
            sequence = static_cast<int>(packet.pts);
        };
        thread.onSeeking = [&](int seekTimeMs, bool flush) {
            if (flush) {
                lastServed = seekTimeMs;
            }
        };
        thread.start();
        constexpr int kPackets = 60;
        std::thread parser([&] {
            for (int i = 0; i < kPackets; ++i) {
                thread.fillPacket(makePacket(i));
                if (i % 11 == round % 11) {
                    thread.seek(i);
                }
                if (i % 5 == 0) {
                    std::this_thread::yield();
                }
            }
        });
        std::thread host([&] {
            for (int i = 0; i < 40; ++i) {
                thread.checkBuffer(i);
                thread.clearBuffer(i);
                thread.getQueuePacketSize();
            }
        });
        if (round % 3 == 0) {
            // A stop in the middle of it all.
            parser.join();
            thread.stop();
            host.join();
        } else {
            parser.join();
            host.join();
            // One more seek and packet: both have to arrive.
            thread.seek(1000);
            thread.fillPacket(makePacket(1000));
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (sequence != 1000 && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::yield();
            }
            EXPECT_EQ(sequence, 1000) << "round " << round;
            EXPECT_EQ(lastServed, 1000) << "round " << round;
            thread.stop();
        }
        EXPECT_LE(decoded, kPackets + 1);
        EXPECT_FALSE(disordered);
        EXPECT_EQ(thread.getQueuePacketSize(), 0);
        EXPECT_EQ(thread.events().back(), "exit");
    }
}

TEST(BaseDecodeThreadStress, StopsWheneverItIsAsked) {
    FakeTime::reset();
    for (int round = 0; round < 500; ++round) {
        RecordingDecodeThread thread;
        thread.start();
        if (round % 2) {
            thread.fillPacket(makePacket(round));
        }
        for (int i = 0; i < round % 50; ++i) {
            std::this_thread::yield();
        }
        thread.stop();
        EXPECT_EQ(thread.events().back(), "exit");
    }
}

TEST_F(BaseDecodeThreadTest, TellsWithoutItsLockWhatWaits) {
    const auto fill = [this](int64_t pts) {
        const auto packet = makePacket(pts, 1, 100);
        packet->data = pts >= 0 ? new unsigned char[1] : nullptr;
        thread_.fillPacket(packet);
    };
    BaseDecodeThread& base = thread_;
    QueueLevelLook look(base);
    EXPECT_EQ(look.text(), "0 0");
    fill(10);
    EXPECT_EQ(look.text(), "1 0");
    fill(14);
    fill(-1);  // the end has no time
    EXPECT_EQ(look.text(), "3 40");
    base.seek(0);
    EXPECT_EQ(look.text(), "0 0");
}

// What a packet takes beside its data is counted too, so that many small ones are bounded as well.
TEST_F(BaseDecodeThreadTest, TellsTheMemoryThatWaits) {
    BaseDecodeThread& base = thread_;
    const auto fill = [&](int size) {
        auto packet = makePacket(0);
        packet->size = size;
        base.fillPacket(std::move(packet));
        return base.level().bytes();
    };
    const int64_t empty = fill(0);
    EXPECT_GT(empty, 0);
    EXPECT_EQ(fill(1000), 2 * empty + 1000);
    base.seek(0);
    EXPECT_EQ(base.level().bytes(), 0);
    EXPECT_EQ(fill(0), empty);
    std::atomic<int64_t> left{-1};
    thread_.onDecode = [&](MediaPacket&) { left = base.level().bytes(); };
    thread_.start();
    while (left < 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(left, 0);
    thread_.stop();
}

}  // namespace
}  // namespace kelp
