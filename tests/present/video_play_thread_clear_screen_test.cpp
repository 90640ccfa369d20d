#include <algorithm>
#include <cstring>

#include "decode/decoded_frame.h"
#include "present/video_play_fixture.h"

extern "C" {
#include <libavutil/buffer.h>
}

namespace kelp {
namespace {

using test::blockOf;
using test::blockWith;
using test::LogCapture;
using test::makePacketPicture;
using test::makePicture;
using test::Shown;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Peer = VideoPlayThreadPeer;

using VideoPlayThreadClearScreen = test::VideoPlayFixture;

TEST_F(VideoPlayThreadClearScreen, BlanksThePictureAndLowersItsTimeAtTheNextDrawing) {
    const auto frame = makePicture(1000);
    const auto before = blockOf(*frame);
    output(frame);
    renders.clearCalls();
    thread.clearScreen();
    // Nothing is drawn or written on the caller's thread.
    EXPECT_THAT(renders.calls(), IsEmpty());
    EXPECT_EQ(blockOf(*frame), before);
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*frame), blockWith(16 * 8, 0, 128));
    EXPECT_THAT(renders.calls(), ElementsAre("1 fill 999", "1 refresh"));
    Peer::idle(thread);
    EXPECT_EQ(frame->pts, 999);
}

TEST_F(VideoPlayThreadClearScreen, LowersTheTimeByOneForEachCall) {
    const auto frame = makePicture(1000);
    output(frame);
    thread.clearScreen();
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(frame->pts, 998);
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(frame->pts, 997);
}

TEST_F(VideoPlayThreadClearScreen, DoesNothingWithoutAPicture) {
    thread.clearScreen();
    const auto frame = makePicture(1000);
    const auto before = blockOf(*frame);
    output(frame);
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*frame), before);
    EXPECT_EQ(frame->pts, 1000);
}

TEST_F(VideoPlayThreadClearScreen, SparesThePictureThatComesNext) {
    const auto first = makePicture(0);
    const auto second = makePicture(40);
    const auto before = blockOf(*second);
    output(first);
    thread.clearScreen();
    output(second);
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*first), blockWith(16 * 8, 0, 128));
    EXPECT_EQ(first->pts, -1);
    EXPECT_EQ(blockOf(*second), before);
    EXPECT_EQ(second->pts, 40);
    // The wait for the second one shows the first one black.
    EXPECT_THAT(refreshes(), ElementsAre(Shown{0, 0}, Shown{0, -1}, Shown{15, -1}, Shown{40, 40}, Shown{40, 40}));
}

TEST_F(VideoPlayThreadClearScreen, SparesThePictureThatIsBeingDrawn) {
    const auto first = makePicture(0);
    const auto second = makePicture(40);
    const auto before = blockOf(*second);
    output(first);
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 40) {
            thread.clearScreen();  // the picture on the screen is still the first one
            renders.onRefresh = [](int64_t) {};
        }
    };
    output(second);
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*second), before);
    EXPECT_EQ(second->pts, 40);
}

TEST_F(VideoPlayThreadClearScreen, TurnsThePictureBlackThatAWaitShows) {
    const auto frame = makePicture(0);
    output(frame);
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 0 && elapsed() == 15) {
            thread.clearScreen();
        }
    };
    output(100);
    EXPECT_THAT(refreshes(), ElementsAre(Shown{0, 0}, Shown{0, 0}, Shown{15, 0}, Shown{30, -1}, Shown{45, -1},
                                         Shown{60, -1}, Shown{75, -1}, Shown{100, 100}));
}

TEST_F(VideoPlayThreadClearScreen, TurnsThePictureOfAPauseBlackThoughItIsOfferedAgain) {
    const auto frame = makePicture(1000);
    output(frame);
    thread.pause(true);
    output(frame);
    thread.clearScreen();
    renders.onRefresh = [&](int64_t) { EXPECT_THAT(blockOf(*frame), Each(testing::AnyOf(0, 128))); };
    EXPECT_TRUE(output(frame));
    EXPECT_EQ(renders.pictures().back().pts, 999);
    EXPECT_EQ(thread.getCurrentTime(), 999);
    // A request in the middle of such a drawing is for the same picture.
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 999) {
            thread.clearScreen();
            renders.onRefresh = [](int64_t) {};
        }
    };
    output(frame);
    output(frame);
    EXPECT_EQ(frame->pts, 998);
}

TEST_F(VideoPlayThreadClearScreen, TurnsThePictureBlackThatStaysUpAheadOfAForcingMaster) {
    const auto frame = makePicture(0);
    output(frame);
    const auto next = makePicture(500);
    const auto before = blockOf(*next);
    follow(0)->forcing = true;
    EXPECT_FALSE(output(next));
    thread.clearScreen();
    EXPECT_FALSE(output(next));
    EXPECT_EQ(renders.refreshes().back().pts, -1);
    EXPECT_EQ(blockOf(*next), before);
}

TEST_F(VideoPlayThreadClearScreen, TurnsThePictureBlackThatIsHeldAfterAWait) {
    output(0);
    follow(0)->forcing = true;
    renders.onRefresh = [this](int64_t) {
        if (elapsed() == 480) {
            thread.clearScreen();  // in the last drawing of the wait
        }
    };
    EXPECT_FALSE(output(500));
    EXPECT_EQ(refreshes().back(), (Shown{500, -1}));
}

TEST_F(VideoPlayThreadClearScreen, TakesThePlanesAsTightlyPacked) {
    // 15 luma bytes, then 3 and 3; the last byte of the block is no one's.
    const auto frame = makePicture(0, 5, 3);
    frame->data[0] = nullptr;
    frame->linesize[0] = 64;
    const int last = blockOf(*frame).back();
    output(frame);
    thread.clearScreen();
    Peer::idle(thread);
    auto expected = blockWith(15, 0, 128);
    ASSERT_EQ(expected.size(), 21U);
    expected.push_back(last);
    EXPECT_EQ(blockOf(*frame), expected);
}

TEST_F(VideoPlayThreadClearScreen, LeavesThePartOfALargerBlockAlone) {
    const auto frame = makePicture(0, 16, 8);
    frame->width = 8;
    frame->height = 8;
    output(frame);
    const auto before = blockOf(*frame);
    thread.clearScreen();
    Peer::idle(thread);
    auto expected = blockWith(64, 0, 128);
    expected.insert(expected.end(), before.begin() + 96, before.end());
    EXPECT_EQ(blockOf(*frame), expected);
}

TEST_F(VideoPlayThreadClearScreen, StaysInsideOfABlockThatIsTooSmall) {
    const auto frame = makePicture(0, 16, 8);
    frame->height = 1000;
    output(frame);
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_THAT(blockOf(*frame), Each(0));
    frame->buffer.reset();
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(frame->pts, -2);
}

TEST_F(VideoPlayThreadClearScreen, BlanksAPictureOfTheDecodersInABlockOfItsOwn) {
    constexpr int kRowBytes = 64;
    AVBufferRef* memory = av_buffer_alloc(kRowBytes * 14);
    std::memset(memory->data, 77, memory->size);
    const auto frame = std::make_shared<VideoFrameInfo>();
    frame->pts = 1000;
    frame->width = 16;
    frame->height = 7;
    frame->decoderMemory[0].reset(av_buffer_ref(memory));
    for (int plane = 0; plane < 3; ++plane) {
        frame->data[plane] = memory->data + kRowBytes * (plane == 0 ? 0 : 8 + 3 * (plane - 1));
        frame->linesize[plane] = kRowBytes;
    }
    output(frame);
    EXPECT_EQ(frame->data[0], memory->data);
    EXPECT_EQ(frame->linesize[0], kRowBytes);
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(frame->pts, 999);
    EXPECT_EQ(renders.calls().back(), "1 refresh");
    // The decoder's is as it was, and the decoder's alone again.
    EXPECT_EQ(std::count(memory->data, memory->data + memory->size, 77), kRowBytes * 14);
    EXPECT_EQ(av_buffer_get_ref_count(memory), 1);
    EXPECT_FALSE(frame->decoderMemory[0]);
    ASSERT_TRUE(frame->buffer);
    EXPECT_EQ(frame->buffer->size, 16U * 7 * 3 / 2);
    EXPECT_EQ(blockOf(*frame), blockWith(16 * 7, 0, 128));
    EXPECT_EQ(frame->data[0], frame->buffer->data);
    EXPECT_EQ(frame->data[1], frame->buffer->data + 16 * 7);
    EXPECT_EQ(frame->data[2], frame->buffer->data + 16 * 7 + 8 * 3);
    EXPECT_EQ(frame->linesize[0], 16);
    EXPECT_EQ(frame->linesize[1], 8);
    EXPECT_EQ(frame->linesize[2], 8);
    // Once more: the block is there by now.
    const auto block = frame->buffer;
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(frame->buffer, block);
    EXPECT_EQ(frame->pts, 998);
    av_buffer_unref(&memory);
}

TEST_F(VideoPlayThreadClearScreen, SparesAPictureThatWasLent) {
    EXPECT_EQ(thread.lendPicture(), nullptr);
    const auto pool = std::make_shared<std::vector<std::shared_ptr<FrameBuffer>>>();  // until the last frame has gone
    auto frame = makePicture(1000);
    frame->freeBuffer = [pool](std::shared_ptr<FrameBuffer> block) { pool->push_back(std::move(block)); };
    frame->rotate = 90;
    frame->pixelWidth = 2;
    const auto before = blockOf(*frame);
    output(frame);
    auto lent = thread.lendPicture();
    ASSERT_TRUE(lent);
    EXPECT_EQ(lent->rotate, 90);
    EXPECT_EQ(lent->pixelWidth, 2);
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*frame), blockWith(16 * 8, 0, 128));
    EXPECT_EQ(frame->data[0], frame->buffer->data);
    EXPECT_EQ(blockOf(*lent), before);
    EXPECT_EQ(lent->data[0], lent->buffer->data);
    EXPECT_EQ(lent->linesize[1], 8);
    // The next look is at the black one, which is blanked again in a block that nobody else has.
    const auto black = thread.lendPicture();
    EXPECT_EQ(blockOf(*black), blockWith(16 * 8, 0, 128));
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*black), blockWith(16 * 8, 0, 128));
    EXPECT_NE(black->buffer, frame->buffer);
    EXPECT_EQ(frame->pts, 998);
    EXPECT_THAT(*pool, IsEmpty());
}

TEST_F(VideoPlayThreadClearScreen, KeepsTheBlockOfALentPictureOutOfItsPool) {
    const auto pool = std::make_shared<std::vector<std::shared_ptr<FrameBuffer>>>();  // until the last frame has gone
    auto frame = makePicture(0);
    frame->freeBuffer = [pool](std::shared_ptr<FrameBuffer> block) { pool->push_back(std::move(block)); };
    const auto* const block = frame->buffer.get();
    output(frame);
    frame.reset();
    auto lent = thread.lendPicture();
    output(40);
    output(80);
    EXPECT_THAT(*pool, IsEmpty());
    lent.reset();
    ASSERT_EQ(pool->size(), 1U);
    EXPECT_EQ(pool->front().get(), block);
}

TEST_F(VideoPlayThreadClearScreen, LowersTheTimeOfAPassThroughFrameOnly) {
    const auto frame = makePacketPicture(40, "bytes");
    const auto before = blockOf(*frame);
    output(frame);
    thread.clearScreen();
    Peer::idle(thread);
    EXPECT_EQ(blockOf(*frame), before);
    EXPECT_EQ(frame->pts, 39);
    EXPECT_EQ(thread.lendPicture(), nullptr);
}

TEST_F(VideoPlayThreadClearScreen, SkipsTheBlackPictureOfAPauseIfMoreIsQueuedOnResume) {
    const auto frame = makePicture(1000);
    output(frame);
    thread.pause(true);
    output(frame);
    thread.clearScreen();
    thread.pause(false);
    queue(2);
    renders.clearCalls();
    output(frame);  // goes back by one millisecond
    EXPECT_THAT(renders.calls(), IsEmpty());
}

}  // namespace
}  // namespace kelp
