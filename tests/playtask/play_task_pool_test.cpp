#include <gmock/gmock.h>

#include "playtask/play_task_peer.h"
#include "support/log_capture.h"

// The pools of buffers, reached as the decode threads reach them.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::shared_ptr<FrameBuffer> bufferOf(unsigned int size) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size];
    buffer->size = size;
    return buffer;
}

TEST(PlayTaskPools, GivesNothingForNothing) {
    TaskUnderTest under;
    LogCapture log;
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(0), nullptr);
    EXPECT_EQ(under.fromAudioDecode().allocPcmBuffer(0), nullptr);
    EXPECT_EQ(log.count("[PlayTask]"), 0);
}

TEST(PlayTaskPools, GivesTheFrontBufferForNothingIfThereIsOne) {
    TaskUnderTest under;
    const auto buffer = bufferOf(10);
    under.fromVideoDecode().freePixBuffer(buffer);
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(0), buffer);
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
}

TEST(PlayTaskPools, DropsWhatIsTooSmallOnTheWayToALargeEnoughBuffer) {
    TaskUnderTest under;
    auto small = bufferOf(100);
    const auto large = bufferOf(200);
    const auto larger = bufferOf(300);
    // A buffer at least as large as the front goes to the front: filled so that the small one comes to stand there.
    under.fromVideoDecode().freePixBuffer(larger);
    under.fromVideoDecode().freePixBuffer(small);
    under.fromVideoDecode().freePixBuffer(large);
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(300, 100, 200));
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(300), larger);

    LogCapture log;
    const std::weak_ptr<FrameBuffer> gone = small;
    small.reset();
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(150), large);
    EXPECT_TRUE(gone.expired());
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: allocFrameBuffer, delete buffer from pool, size not match, "
                                          "request:150, buffer:100\n"));
}

TEST(PlayTaskPools, EmptiesItselfOfSmallBuffersAtOnce) {
    TaskUnderTest under;
    for (int i = 0; i < 4; ++i) {
        under.fromVideoDecode().freePixBuffer(bufferOf(100));
    }
    LogCapture log;
    const auto buffer = under.fromVideoDecode().allocPixBuffer(101);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->size, 101u);
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_EQ(log.count("size not match"), 4);
    EXPECT_EQ(linesOf(log).back(), "[PlayTask]: allocFrameBuffer, no buffer from pool, dataSize:101\n");
}

TEST(PlayTaskPools, KeepsTheLargestAtTheFront) {
    TaskUnderTest under;
    under.fromVideoDecode().freePixBuffer(bufferOf(200));
    under.fromVideoDecode().freePixBuffer(bufferOf(300));
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(300, 200));
    under.fromVideoDecode().freePixBuffer(bufferOf(100));
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(300, 200, 100));

    const auto equal = bufferOf(300);
    under.fromVideoDecode().freePixBuffer(equal);
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(300, 300, 200, 100));
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(300), equal);
}

TEST(PlayTaskPools, IgnoreAnEmptyPointer) {
    TaskUnderTest under;
    under.fromVideoDecode().freePixBuffer(nullptr);
    under.fromAudioDecode().freePcmBuffer(nullptr);
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_THAT(under.peer.pcmPool(), IsEmpty());
}

TEST(PlayTaskPools, AddAMarginToSoundOnly) {
    TaskUnderTest under;
    const auto pcm = under.fromAudioDecode().allocPcmBuffer(1000);
    EXPECT_EQ(pcm->size, 1210u);
    EXPECT_EQ(under.fromVideoDecode().allocPixBuffer(1000)->size, 1000u);

    // The margin is what lets a somewhat longer block take the same buffer.
    under.fromAudioDecode().freePcmBuffer(pcm);
    LogCapture log;
    EXPECT_EQ(under.fromAudioDecode().allocPcmBuffer(1100), pcm);
    EXPECT_THAT(linesOf(log), IsEmpty());
}

// 121 times this size doesn't fit into 32 bits: what comes out would be smaller than what was asked for.
TEST(PlayTaskPools, NeverGiveLessThanAskedFor) {
    TaskUnderTest under;
    const unsigned int size = 40'000'000;
    EXPECT_GE(under.fromAudioDecode().allocPcmBuffer(size)->size, size);
}

TEST(PlayTaskPools, AreApartAndEmptiedByStop) {
    TaskUnderTest under;
    under.fromVideoDecode().freePixBuffer(bufferOf(10));
    under.fromAudioDecode().freePcmBuffer(bufferOf(20));
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(10));
    EXPECT_THAT(under.peer.pcmPool(), ElementsAre(20));
    under.task->stop();
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_THAT(under.peer.pcmPool(), IsEmpty());
}

TEST(PlayTaskPools, KeepNothingWhileTheyAreClosed) {
    FrameBufferPool pool(100);
    auto idle = bufferOf(10);
    auto late = bufferOf(10);
    const std::weak_ptr<FrameBuffer> idleLeft = idle;
    const std::weak_ptr<FrameBuffer> lateLeft = late;
    pool.free(std::move(idle));
    pool.close();
    EXPECT_TRUE(idleLeft.expired());
    pool.free(std::move(late));
    EXPECT_TRUE(lateLeft.expired());
    EXPECT_EQ(pool.alloc(10)->size, 10u);
    pool.reopen();
    const auto next = bufferOf(10);
    pool.free(next);
    EXPECT_EQ(pool.alloc(10), next);
}

// So that it is done while the stages come to their ends.
TEST(PlayTaskPools, AreEmptiedBeforeAStopWaitsForAnything) {
    TaskUnderTest under;
    auto buffer = bufferOf(10);
    const std::weak_ptr<FrameBuffer> left = buffer;
    under.fromVideoDecode().freePixBuffer(std::move(buffer));
    bool isLeft = true;
    const LogCapture levels;
    Log::SetLogCallback([&](const char* line) {
        if (std::string_view(line).find("[StreamParser]: stop\n") != std::string_view::npos) {
            isLeft = !left.expired();
        }
    });
    under.task->stop();
    EXPECT_FALSE(isLeft);
}

TEST(PlayTaskPools, ServeManyThreadsAtOnce) {
    TaskUnderTest under;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 4; ++i) {
        threads.emplace_back([&under, i] {
            for (unsigned int n = 0; n < 500; ++n) {
                const auto buffer = under.fromVideoDecode().allocPixBuffer(100 + (n * 7 + i) % 50);
                buffer->data[buffer->size - 1] = 1;
                under.fromVideoDecode().freePixBuffer(buffer);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_LE(under.peer.pixPool().size(), 4u);
    EXPECT_GE(under.peer.pixPool().size(), 1u);
}

}  // namespace
}  // namespace kelp::test
