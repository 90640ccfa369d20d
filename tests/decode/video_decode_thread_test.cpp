#include "decode/video_decode_thread.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "decode/decoded_frame.h"
#include "decode/seek_skip.h"
#include "decode/video_decoder_factory.h"
#include "decode/video_test_support.h"
#include "input/loop_turn.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/log.h"
#include "support/fake_time.h"
#include "support/log_capture.h"
#include "support/private_member.h"

namespace kelp::test {

using DecoderMember = std::shared_ptr<IVideoDecoder> VideoDecodeThread::*;
DecoderMember privateMember(PrivateMember<struct VideoDecoderTag, DecoderMember>);
template struct ExposeMember<struct VideoDecoderTag, &VideoDecodeThread::decoder_>;

}  // namespace kelp::test

namespace {

bool noDecoder = false;
std::shared_ptr<kelp::IVideoDecoder> nextDecoder;  // in place of a real one, if set

}  // namespace

// VideoDecoderFactory::create.
#define CREATE_DECODER(prefix) prefix##_ZN4kelp19VideoDecoderFactory6createENS_14VideoCodecTypeE
extern "C" {
std::shared_ptr<kelp::IVideoDecoder> CREATE_DECODER(__real_)(kelp::VideoDecoderFactory*, kelp::VideoCodecType);
std::shared_ptr<kelp::IVideoDecoder> CREATE_DECODER(__wrap_)(kelp::VideoDecoderFactory* self,
                                                             kelp::VideoCodecType type) {
    if (nextDecoder) {
        return std::move(nextDecoder);
    }
    return noDecoder ? nullptr : CREATE_DECODER(__real_)(self, type);
}
}

namespace kelp {
namespace {

using test::FakeTime;
using test::LogCapture;
using test::makeEndPacket;
using test::makeVideoPacket;
using test::videoFakes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Writes down what the thread says, in order, and plays a presentation that takes what it gets.
class RecordingObserver final : public VideoDecodeThreadObserver {
public:
    void onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) override {
        const std::string event = "frame " + std::to_string(frame->pts);
        if (waitingFromNextFrame >= 0) {
            waiting = waitingFromNextFrame.load();
        }
        {
            std::lock_guard lock(mutex_);
            if (keep_) {
                frames_.push_back(std::move(frame));
            }
        }
        record(event);
    }
    void onVideoDecodeFailed() override { record("failed"); }
    void onVideoDecodeNoMoreFrame() override { record("no more"); }
    int onVideoFrameQueueSize() override { return waiting; }
    void onVideoPacketTaken() override {
        std::lock_guard lock(mutex_);
        ++taken;
        changed_.notify_all();
    }
    std::optional<int64_t> onVideoDue() override { return dueMs >= 0 ? std::optional(dueMs.load()) : std::nullopt; }
    void onVideoDecodeSeek(int seekTimeMs, bool flush) override {
        record("seek " + std::to_string(seekTimeMs) + (flush ? " flush" : ""));
    }
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int size) override {
        auto buffer = std::make_shared<FrameBuffer>();
        buffer->data = new unsigned char[size];
        buffer->size = size;
        return buffer;
    }
    void freePixBuffer(std::shared_ptr<FrameBuffer>) override { ++returned; }

    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    // Waits in real time, up to five seconds, for so many events; what there are then.
    std::vector<std::string> waitForEvents(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
        return events_;
    }
    bool waitForTaken(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return taken >= count; });
    }
    void keepFrames() {
        std::lock_guard lock(mutex_);
        keep_ = true;
    }
    std::vector<std::shared_ptr<VideoFrameInfo>> takeFrames() {
        std::lock_guard lock(mutex_);
        return std::move(frames_);
    }

    std::atomic<int> waiting{0};                // frames in the play thread's queue
    std::atomic<int> waitingFromNextFrame{-1};  // what `waiting` becomes with the next frame, unless negative
    std::atomic<int> returned{0};               // buffers given back
    std::atomic<int> taken{0};                  // packets
    std::atomic<int64_t> dueMs{-1};             // what is to be shown now, unless negative
    // The thread that the last event came on.
    std::thread::id lastThread() {
        std::lock_guard lock(mutex_);
        return lastThread_;
    }

private:
    void record(std::string event) {
        std::lock_guard lock(mutex_);
        lastThread_ = std::this_thread::get_id();
        events_.push_back(std::move(event));
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    std::thread::id lastThread_;
    bool keep_ = false;
    std::vector<std::shared_ptr<VideoFrameInfo>> frames_;
};

// Turns each packet into a frame of its time, and an end packet into the report that nothing comes. Writes down what
// it is told into the same list as the observer's by way of the thread.
class ScriptedDecoder : public IVideoDecoder {
public:
    bool open(VideoCodecType, const void*, PixFormat, bool,
              std::shared_ptr<VideoDecoderObserver> newObserver) override {
        observer = std::move(newObserver);
        return true;
    }
    bool pause() override { return false; }
    bool resume() override { return false; }
    void close() override { ++closes; }
    void insertPacket(MediaPacket* packet) override {
        if (packet->size < 0) {
            observer->onVideoDecodeFailed();
        } else if (!packet->data) {
            observer->onVideoDecodeNoMoreFrame();
        } else {
            auto frame = std::make_shared<VideoFrameInfo>();
            frame->pts = packet->pts + (packet->turn ? packet->turn->shiftMs : 0);
            observer->onVideoDecoded(frame);
        }
    }
    void flush() override { ++flushes; }
    void setNeededFrom(int64_t timeMs) override { neededFrom.push_back(timeMs); }
    void setInsertedBehindTarget(int pictures) override { behindTarget.push_back(pictures); }
    bool enableHardware(bool, HwDecodeMode) override { return true; }
    int64_t getAvgDecodeTime() override { return 17; }

    std::shared_ptr<VideoDecoderObserver> observer;
    std::vector<int64_t> neededFrom;  // for each packet; the decode thread's
    std::vector<int> behindTarget;    // likewise
    std::atomic<int> flushes{0};
    std::atomic<int> closes{0};
};

class VideoDecodeThreadTest : public testing::Test {
protected:
    VideoDecodeThreadTest() {
        videoFakes() = {};
        FakeTime::reset();
        av_log_set_level(AV_LOG_QUIET);
        Log::SetLevel(0);
    }
    ~VideoDecodeThreadTest() override {
        // A decoder that was opened lets go of its thread when that has run.
        if (std::exchange(opened_, false)) {
            start();
        }
        if (std::exchange(started_, false)) {
            thread_->stop();
        }
        thread_.reset();
        EXPECT_EQ(videoFakes().liveContexts, 0);
        videoFakes() = {};
        FakeTime::reset();
        Log::SetLevel(logLevel_);
    }

    bool open(VideoCodecType type = VIDEO_CODEC_MPEG4) {
        return opened_ = thread_->open(type, nullptr, PIX_FMT_YUV420P, false, HW_DECODE_NONE, false, observer_);
    }

    // As `open`, with a decoder that needs no real packets.
    void openScripted() {
        ASSERT_TRUE(open());
        auto& decoder = (*thread_).*privateMember(test::PrivateMember<test::VideoDecoderTag, test::DecoderMember>{});
        decoder->close();
        decoder = scripted_;
        scripted_->open(VIDEO_CODEC_MPEG4, nullptr, PIX_FMT_YUV420P, false, thread_);
    }

    void start() {
        opened_ = false;
        started_ = true;
        EXPECT_TRUE(thread_->start());
    }
    void stop() {
        started_ = false;
        thread_->stop();
        scripted_->observer.reset();
    }

    std::shared_ptr<RecordingObserver> observer_ = std::make_shared<RecordingObserver>();
    std::shared_ptr<ScriptedDecoder> scripted_ = std::make_shared<ScriptedDecoder>();
    std::shared_ptr<VideoDecodeThread> thread_ = std::make_shared<VideoDecodeThread>();
    const int logLevel_ = Log::GetLevel();
    bool opened_ = false;
    bool started_ = false;
};

TEST_F(VideoDecodeThreadTest, IsADecodersObserverAndNoDecodeThreadToOthers) {
    EXPECT_TRUE((std::is_convertible_v<VideoDecodeThread*, VideoDecoderObserver*>));
    EXPECT_FALSE((std::is_convertible_v<VideoDecodeThread*, BaseDecodeThread*>));
}

TEST_F(VideoDecodeThreadTest, ChangesTheDecoderWithTheTrackAndShowsNoTimeTwice) {
    openScripted();
    start();
    for (const int64_t pts : {0, 40, 80}) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    ASSERT_THAT(observer_->waitForEvents(3), SizeIs(3));
    const auto second = std::make_shared<ScriptedDecoder>();
    nextDecoder = second;
    const auto track = std::make_shared<CodecInfo>();
    track->videoCodecType = VIDEO_CODEC_HEVC;
    for (const int64_t pts : {40, 80, 120, 100}) {
        const auto packet = makeVideoPacket(pts);
        packet->track = track;
        thread_->fillPacket(packet);
    }
    // The end gets out of the first decoder what it still holds.
    EXPECT_THAT(observer_->waitForEvents(6),
                ElementsAre("frame 0", "frame 40", "frame 80", "no more", "frame 120", "frame 100"));
    EXPECT_EQ(scripted_->closes, 1);
    EXPECT_EQ(second->closes, 0);
    stop();
    second->observer.reset();
}

TEST_F(VideoDecodeThreadTest, EmptiesTheDecoderBetweenTurnsAlone) {
    openScripted();
    start();
    for (const int64_t shiftMs : {1000, 1000, 2000}) {
        const auto packet = makeVideoPacket(0);
        packet->turn = std::make_shared<LoopTurn>(LoopTurn{.shiftUs = shiftMs * 1000, .shiftMs = shiftMs});
        thread_->fillPacket(packet);
    }
    // Emptied and flushed.
    EXPECT_THAT(observer_->waitForEvents(5),
                ElementsAre("frame 1000", "frame 1000", "no more", "no more", "frame 2000"));
    stop();
}

// A film of slides, in a loop from 3000 to 6000.
TEST_F(VideoDecodeThreadTest, ShowsThePictureThatStandsWhereATurnBeginsIfThatHasNoneForLong) {
    openScripted();
    start();
    int64_t shiftMs = -3000;
    for (const std::vector<int64_t>& times : std::vector<std::vector<int64_t>>{
             {0, 2000}, {0, 2000}, {0, 2000}, {0, 2000, 5000}, {0, 2000, 3040}, {0, 2000, 3000}}) {
        shiftMs += 3000;
        const auto turn = std::make_shared<LoopTurn>(LoopTurn{.shiftUs = shiftMs * 1000, .shiftMs = shiftMs});
        turn->fromUs = shiftMs > 0 ? 3'000'000 : -1;
        turn->toUs = 6'000'000;
        for (const int64_t pts : times) {
            const auto packet = makeVideoPacket(pts);
            packet->turn = turn;
            thread_->fillPacket(packet);
        }
    }
    auto events = observer_->waitForEvents(18);
    std::erase(events, "no more");  // the decoder is emptied and flushed between two turns
    EXPECT_THAT(events, ElementsAre("frame 0", "frame 2000", "frame 6000", "frame 9000", "frame 12000", "frame 14000",
                                    "frame 15040", "frame 18000"));
    stop();
}

TEST_F(VideoDecodeThreadTest, LeavesOutWhatWouldComeTooLateButForOneNowAndThen) {
    openScripted();
    for (const int64_t pts : {0, 40, 80, 120, 160}) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    observer_->dueMs = 130;
    start();
    ASSERT_THAT(observer_->waitForEvents(5), SizeIs(5));
    EXPECT_THAT(scripted_->neededFrom, ElementsAre(SeekSkip::kNone, 41, 81, 81, 81)) << "none came before the first";
    EXPECT_EQ(thread_->counts().late.read(), 2);
    EXPECT_TRUE(thread_->isLeftOut(80));
    EXPECT_FALSE(thread_->isLeftOut(81));
    EXPECT_EQ(observer_->taken, 5);
}

TEST_F(VideoDecodeThreadTest, GoesOnAtAKeyFrameThatIsDue) {
    openScripted();
    for (const int64_t pts : {0, 40, 80, 120, 160}) {
        const auto packet = makeVideoPacket(pts);
        packet->keyFrame = pts == 120;
        thread_->fillPacket(packet);
    }
    observer_->dueMs = 130;
    start();
    EXPECT_THAT(observer_->waitForEvents(3), ElementsAre("frame 0", "frame 120", "frame 160"));
    stop();
    EXPECT_EQ(thread_->counts().late.read(), 2);
    EXPECT_EQ(observer_->taken, 5);
}

TEST_F(VideoDecodeThreadTest, GoesOnAtTheNextKeyFrameWherePlaybackIsFarAhead) {
    openScripted();
    for (const int64_t pts : {0, 40, 80, 120, 6000}) {
        const auto packet = makeVideoPacket(pts);
        packet->keyFrame = pts == 6000;
        thread_->fillPacket(packet);
    }
    observer_->dueMs = 5000;
    start();
    EXPECT_THAT(observer_->waitForEvents(2), ElementsAre("frame 0", "frame 6000"));
    EXPECT_EQ(thread_->counts().late.read(), 3);
}

TEST_F(VideoDecodeThreadTest, StandsForNoKeyFrameThatMayNeverCome) {
    openScripted();
    observer_->dueMs = 5000;
    start();
    for (const int64_t pts : {0, 40, 80}) {
        thread_->fillPacket(makeVideoPacket(pts));
        ASSERT_THAT(observer_->waitForEvents(static_cast<size_t>(pts / 40 + 1)), SizeIs(pts / 40 + 1));
    }
    EXPECT_EQ(thread_->counts().late.read(), 0);
}

TEST_F(VideoDecodeThreadTest, ShowsAllOfATrackThatBeginsBehindASeek) {
    openScripted();
    start();
    thread_->fillPacket(makeVideoPacket(5000));
    ASSERT_THAT(observer_->waitForEvents(1), SizeIs(1));
    const auto second = std::make_shared<ScriptedDecoder>();
    nextDecoder = second;
    thread_->seek(4000);
    const auto packet = makeVideoPacket(4000);
    packet->track = std::make_shared<CodecInfo>();
    thread_->fillPacket(packet);
    EXPECT_THAT(observer_->waitForEvents(4), ElementsAre("frame 5000", "seek 4000 flush", "no more", "frame 4000"));
    stop();
    second->observer.reset();
}

TEST_F(VideoDecodeThreadTest, HasNoBufferToSeekInWhileTwoTracksWait) {
    openScripted();
    thread_->fillPacket(makeVideoPacket(0));
    thread_->onVideoDecoded(std::make_shared<VideoFrameInfo>());
    thread_->fillPacket(makeVideoPacket(1000));
    EXPECT_TRUE(thread_->checkBuffer(500));
    const auto packet = makeVideoPacket(2000);
    packet->track = std::make_shared<CodecInfo>();
    thread_->fillPacket(packet);
    EXPECT_FALSE(thread_->checkBuffer(500));
}

TEST_F(VideoDecodeThreadTest, HandsItsSettingsToTheDecoder) {
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_H264;
    parameters->width = 320;
    parameters->height = 240;
    videoFakes().findByName = [](const char*) { return nullptr; };
    videoFakes().findDeviceType = [](const char*) { return AV_HWDEVICE_TYPE_NONE; };
    LogCapture log;
    opened_ =
        thread_->open(VIDEO_CODEC_H264, parameters.get(), PIX_FMT_YUV422P, true, HW_DECODE_DECODER, true, observer_);
    ASSERT_TRUE(opened_);
    EXPECT_EQ(videoFakes().callCount("find h264_cuvid"), 1);
    EXPECT_EQ(videoFakes().callCount("type cuda"), 0);
    ASSERT_THAT(videoFakes().opened, SizeIs(1));
    EXPECT_EQ(videoFakes().opened[0].width, 320);
    EXPECT_EQ(videoFakes().opened[0].threads, 1);
    EXPECT_EQ(videoFakes().opened[0].pixFmt, AV_PIX_FMT_YUV422P);
    EXPECT_EQ(thread_->getAvgDecodeTimeMs(), 0);
    EXPECT_EQ(log.count("[VideoDecodeThread]: "), 0);
}

// No packet comes behind it that would push it out.
TEST_F(VideoDecodeThreadTest, GivesOutThePictureOfTheLastPacketWhereALowDelayIsWanted) {
    opened_ = thread_->open(VIDEO_CODEC_MPEG4, nullptr, PIX_FMT_YUV420P, false, HW_DECODE_NONE, true, observer_,
                            {.lowLiveDelay = true});
    ASSERT_TRUE(opened_);
    videoFakes().queuePictures = true;
    videoFakes().send = [](const AVPacket* packet) {
        videoFakes().pictures.push_back(test::makePicture(packet->pts));
        return 0;
    };
    start();
    for (size_t count = 1; count <= 3; ++count) {
        thread_->fillPacket(makeVideoPacket(static_cast<int64_t>(count) * 40));
        ASSERT_THAT(observer_->waitForEvents(count), SizeIs(count));
    }
    EXPECT_THAT(observer_->waitForEvents(3), ElementsAre("frame 40", "frame 80", "frame 120"));
}

TEST_F(VideoDecodeThreadTest, LeavesTheHardwareAloneWhenThatIsOffWhateverTheMode) {
    videoFakes().findByName = [](const char*) { return test::realDecoder(AV_CODEC_ID_H264); };
    videoFakes().findDeviceType = [](const char*) { return AV_HWDEVICE_TYPE_VAAPI; };
    videoFakes().createDevice = [](AVBufferRef** device, AVHWDeviceType) {
        *device = av_buffer_allocz(4096);
        return 0;
    };
    opened_ = thread_->open(VIDEO_CODEC_H264, nullptr, PIX_FMT_YUV420P, false, HW_DECODE_ALL, false, observer_);
    ASSERT_TRUE(opened_);
    EXPECT_THAT(videoFakes().calls, ElementsAre("find 27", "open h264"));
    ASSERT_THAT(videoFakes().opened, SizeIs(1));
    EXPECT_FALSE(videoFakes().opened[0].hasDevice);
    EXPECT_TRUE(videoFakes().opened[0].hasDefaultGetFormat);
}

TEST_F(VideoDecodeThreadTest, SaysThatThereIsNoDecoder) {
    LogCapture log;
    noDecoder = true;
    EXPECT_FALSE(open());
    noDecoder = false;
    EXPECT_THAT(log.lines(), ElementsAre("[VideoDecodeThread]: play, failed create video decoder\n"));
}

TEST_F(VideoDecodeThreadTest, SaysThatTheDecoderDidNotOpen) {
    LogCapture log;
    EXPECT_FALSE(open(static_cast<VideoCodecType>(99)));
    EXPECT_EQ(log.count("[VideoDecodeThread]: play, failed open video decoder\n"), 1);
    // It is still there.
    EXPECT_EQ(thread_->getAvgDecodeTimeMs(), 0);
}

TEST_F(VideoDecodeThreadTest, LeavesNothingBehindAfterAnOpenThatFailed) {
    videoFakes().openError = [] { return AVERROR(EINVAL); };
    EXPECT_FALSE(open());
    const std::weak_ptr<VideoDecodeThread> thread = thread_;
    const std::weak_ptr<RecordingObserver> observer = observer_;
    thread_.reset();
    observer_.reset();
    EXPECT_TRUE(thread.expired());
    EXPECT_TRUE(observer.expired());
}

TEST_F(VideoDecodeThreadTest, NeedsASharedPointerToOpen) {
    VideoDecodeThread alone;
    EXPECT_THROW(alone.open(VIDEO_CODEC_MPEG4, nullptr, PIX_FMT_YUV420P, false, HW_DECODE_NONE, false, observer_),
                 std::bad_weak_ptr);
}

TEST_F(VideoDecodeThreadTest, TakesNoPacketWithoutAnObserver) {
    FakeTime::setManual(true);
    EXPECT_EQ(thread_->fillPacket(makeVideoPacket(0)), 1);
    start();
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(30);
    }
    EXPECT_EQ(thread_->getQueuePacketSize(), 1);
    // What a decoder might ask meanwhile has no answer.
    const std::shared_ptr<VideoDecoderObserver> toDecoder = thread_;
    EXPECT_EQ(toDecoder->allocPixBuffer(10), nullptr);
    toDecoder->freePixBuffer(std::make_shared<FrameBuffer>());
    toDecoder->onVideoDecoded(std::make_shared<VideoFrameInfo>());
    toDecoder->onVideoDecodeFailed();
    toDecoder->onVideoDecodeNoMoreFrame();
    FakeTime::setManual(false);
    stop();
}

TEST_F(VideoDecodeThreadTest, StopsItsThreadWhenItGoes) {
    LogCapture log;
    start();
    started_ = false;
    thread_.reset();
    EXPECT_EQ(log.count("[VideoDecodeThread]: onExit\n"), 1);
}

TEST_F(VideoDecodeThreadTest, DecodesWhileFewerThanThreeFramesWait) {
    FakeTime::setManual(true);
    openScripted();
    observer_->waiting = 3;
    start();
    thread_->fillPacket(makeVideoPacket(0));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::advanceMs(30);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(observer_->events(), IsEmpty());
    observer_->waiting = 2;
    FakeTime::advanceMs(30);
    EXPECT_THAT(observer_->waitForEvents(1), ElementsAre("frame 0"));
    stop();
    EXPECT_EQ(scripted_->closes, 1);
}

TEST_F(VideoDecodeThreadTest, PassesOnWhatTheDecoderSays) {
    LogCapture log;
    openScripted();
    start();
    auto failing = makeVideoPacket(2);
    failing->size = -1;
    thread_->fillPacket(makeVideoPacket(1));
    thread_->fillPacket(failing);
    thread_->fillPacket(makeEndPacket(false));
    EXPECT_THAT(observer_->waitForEvents(3), ElementsAre("frame 1", "failed", "no more"));
    stop();
    EXPECT_EQ(log.count("[VideoDecodeThread]: onVideoDecodeNoMoreFrame\n"), 1);
    EXPECT_EQ(log.count("[VideoDecodeThread]: onExit\n"), 1);
    EXPECT_EQ(log.count("[VideoDecodeThread]: "), 2);
    EXPECT_EQ(log.count("[BaseDecodeThread]: [VideoDecodeThread], Run\n"), 1);
}

TEST_F(VideoDecodeThreadTest, LendsTheObserversBuffers) {
    openScripted();
    const auto buffer = scripted_->observer->allocPixBuffer(100);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->size, 100U);
    scripted_->observer->freePixBuffer(buffer);
    EXPECT_EQ(observer_->returned, 1);
    EXPECT_EQ(thread_->getAvgDecodeTimeMs(), 17);
    start();
    stop();
}

TEST_F(VideoDecodeThreadTest, FlushesTheDecoderForASeek) {
    LogCapture log;
    openScripted();
    start();
    thread_->seek(500);
    thread_->fillPacket(makeVideoPacket(501));
    EXPECT_THAT(observer_->waitForEvents(2), ElementsAre("seek 500 flush", "frame 501"));
    stop();
    EXPECT_EQ(scripted_->flushes, 1);
    EXPECT_NE(observer_->lastThread(), std::this_thread::get_id());
    EXPECT_EQ(log.count("[VideoDecodeThread]: onSeek, seekTimeMs:500, flush:1\n"), 1);
}

// Queued while there is no room, so that it is known what waits behind each one.
TEST_F(VideoDecodeThreadTest, TellsTheDecoderWhatASeekNeeds) {
    FakeTime::setManual(true);
    openScripted();
    observer_->waiting = 3;
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_->seek(1000);
    for (int64_t pts = 600; pts <= 1000; pts += 40) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    observer_->waiting = 0;
    FakeTime::advanceMs(30);
    EXPECT_THAT(observer_->waitForEvents(12), SizeIs(12));
    stop();
    EXPECT_THAT(scripted_->neededFrom, ElementsAre(601, 641, 681, 721, 761, 801, 801, 801, 801, 801, 801));
}

TEST_F(VideoDecodeThreadTest, TellsTheDecoderWhenItHasThePictureOfASeek) {
    FakeTime::setManual(true);
    openScripted();
    observer_->waiting = 3;
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_->seek(720);
    for (int64_t pts = 600; pts <= 840; pts += 40) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    observer_->waiting = 0;
    FakeTime::advanceMs(30);
    EXPECT_THAT(observer_->waitForEvents(8), SizeIs(8));
    stop();
    EXPECT_THAT(scripted_->behindTarget, ElementsAre(-1, -1, -1, 0, 1, 2, -1));
}

TEST_F(VideoDecodeThreadTest, NeedsAllBeforeASeekAndBehindIt) {
    openScripted();
    for (int64_t pts = 0; pts <= 400; pts += 40) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    start();
    EXPECT_THAT(observer_->waitForEvents(11), SizeIs(11));
    stop();
    EXPECT_THAT(scripted_->neededFrom, testing::Each(SeekSkip::kNone));
}

TEST_F(VideoDecodeThreadTest, LeavesOutWhatASeekAmongThePacketsPassesOver) {
    openScripted();
    scripted_->insertPacket(makeVideoPacket(0).get());
    for (int64_t pts = 40; pts <= 600; pts += 40) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    ASSERT_TRUE(thread_->clearBuffer(500));
    start();
    EXPECT_THAT(observer_->waitForEvents(17), SizeIs(17));
    stop();
    EXPECT_EQ(scripted_->neededFrom.front(), 41);
    EXPECT_EQ(scripted_->neededFrom.back(), 281);
    EXPECT_EQ(scripted_->flushes, 0);
}

// The pictures before it may be missing. A later one needs them no more than the first target did.
TEST_F(VideoDecodeThreadTest, RefusesATimeBeforeTheTargetThatPicturesWereLeftOutFor) {
    FakeTime::setManual(true);
    openScripted();
    scripted_->insertPacket(makeVideoPacket(0).get());
    for (int64_t pts = 40; pts <= 1000; pts += 40) {
        thread_->fillPacket(makeVideoPacket(pts));
    }
    EXPECT_TRUE(thread_->checkBuffer(700));
    ASSERT_TRUE(thread_->clearBuffer(800));
    EXPECT_TRUE(thread_->checkBuffer(700));
    observer_->waitingFromNextFrame = 3;
    start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    LogCapture log;
    EXPECT_FALSE(thread_->checkBuffer(799));
    EXPECT_EQ(log.count("out of range"), 1);
    EXPECT_FALSE(thread_->clearBuffer(799));
    EXPECT_TRUE(thread_->checkBuffer(800));
    EXPECT_TRUE(thread_->clearBuffer(900));
    EXPECT_THAT(observer_->events(), ElementsAre("frame 0", "seek 800", "frame 40", "seek 900"));
    FakeTime::setManual(false);
    stop();
}

TEST_F(VideoDecodeThreadTest, RefusesEveryTimeBeforeTheFirstFrame) {
    openScripted();
    thread_->fillPacket(makeVideoPacket(1000));
    LogCapture log;
    EXPECT_FALSE(thread_->checkBuffer(std::numeric_limits<int>::max()));
    EXPECT_THAT(log.lines(),
                ElementsAre("[VideoDecodeThread]: checkBuffer, seekTimeMs:2147483647, "
                            "lastOutputPtsMs:9223372036854775807\n",
                            "[VideoDecodeThread]: checkBuffer, seek time is small than last output pts\n"));
    log.clear();
    EXPECT_FALSE(thread_->clearBuffer(500));
    EXPECT_THAT(log.lines(),
                ElementsAre("[VideoDecodeThread]: clearBuffer, seekTimeMs:500, lastOutputPtsMs:9223372036854775807\n",
                            "[VideoDecodeThread]: onSeek, seekTimeMs:500, flush:0\n"));
    EXPECT_THAT(observer_->events(), ElementsAre("seek 500"));
    start();
    stop();
}

TEST_F(VideoDecodeThreadTest, GrantsATimeBetweenTheLastFrameAndTheLastPacket) {
    openScripted();
    scripted_->insertPacket(makeVideoPacket(200).get());
    thread_->fillPacket(makeVideoPacket(240));
    thread_->fillPacket(makeVideoPacket(400));
    EXPECT_FALSE(thread_->checkBuffer(199));
    EXPECT_TRUE(thread_->checkBuffer(200));
    EXPECT_TRUE(thread_->checkBuffer(400));
    EXPECT_FALSE(thread_->checkBuffer(401));
    EXPECT_FALSE(thread_->checkBuffer(-1));

    EXPECT_TRUE(thread_->clearBuffer(300));
    EXPECT_EQ(scripted_->flushes, 0);
    EXPECT_EQ(thread_->getQueuePacketSize(), 2);
    EXPECT_FALSE(thread_->clearBuffer(401));
    EXPECT_THAT(observer_->events(), ElementsAre("frame 200", "seek 300"));
    EXPECT_EQ(scripted_->flushes, 0);
    EXPECT_EQ(thread_->getQueuePacketSize(), 2);
    start();
    stop();
}

TEST_F(VideoDecodeThreadTest, TellsTheObserverOfARefusedSeekAllTheSame) {
    openScripted();
    scripted_->insertPacket(makeVideoPacket(200).get());
    thread_->fillPacket(makeVideoPacket(400));
    EXPECT_FALSE(thread_->clearBuffer(199));
    EXPECT_THAT(observer_->events(), ElementsAre("frame 200", "seek 199"));
    EXPECT_EQ(observer_->lastThread(), std::this_thread::get_id());
    EXPECT_EQ(scripted_->flushes, 0);
    EXPECT_EQ(thread_->getQueuePacketSize(), 1);
    start();
    stop();
}

TEST_F(VideoDecodeThreadTest, JudgesASecondSeekByTheLastFrameBeforeTheFirst) {
    FakeTime::setManual(true);
    openScripted();
    observer_->waitingFromNextFrame = 3;
    start();
    thread_->fillPacket(makeVideoPacket(1000));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_->seek(60000);
    FakeTime::advanceMs(30);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(scripted_->flushes, 1);

    // The seek is done, and the first new frame is still to be decoded; its packet hasn't come yet.
    LogCapture log;
    EXPECT_FALSE(thread_->checkBuffer(999));
    EXPECT_FALSE(thread_->checkBuffer(1001));
    EXPECT_THAT(log.lines(),
                testing::Contains("[VideoDecodeThread]: checkBuffer, seekTimeMs:1001, lastOutputPtsMs:1000\n"));
    thread_->fillPacket(makeVideoPacket(60000));
    EXPECT_FALSE(thread_->checkBuffer(999));
    EXPECT_TRUE(thread_->checkBuffer(1000));
    EXPECT_THAT(log.lines(),
                testing::Contains("[VideoDecodeThread]: checkBuffer, seekTimeMs:1000, lastOutputPtsMs:1000\n"));
    EXPECT_FALSE(thread_->clearBuffer(999));
    EXPECT_TRUE(thread_->clearBuffer(1000));

    observer_->waiting = 2;
    FakeTime::advanceMs(30);
    EXPECT_THAT(observer_->waitForEvents(5),
                ElementsAre("frame 1000", "seek 60000 flush", "seek 999", "seek 1000", "frame 60000"));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread_->fillPacket(makeVideoPacket(60040));
    log.clear();
    EXPECT_FALSE(thread_->checkBuffer(59999));
    EXPECT_TRUE(log.has("lastOutputPtsMs:60000\n"));
    EXPECT_TRUE(thread_->checkBuffer(60000));
    FakeTime::setManual(false);
    stop();
}

TEST_F(VideoDecodeThreadTest, TellsTheDecoderOfAStop) {
    openScripted();
    start();
    EXPECT_FALSE(scripted_->observer->isStopping());
    thread_->prepareStop();
    EXPECT_TRUE(scripted_->observer->isStopping());
    stop();
}

TEST_F(VideoDecodeThreadTest, DecodesARealStreamAndLetsGoOfEverything) {
    const auto stream = test::makeVideoStream("-c:v libx264 -bf 2", "mp4", 64, 48, 30);
    videoFakes() = {};
    opened_ = thread_->open(stream.codecType, stream.parameters.get(), stream.pixFormat, false, HW_DECODE_NONE, false,
                            observer_);
    ASSERT_TRUE(opened_);
    observer_->keepFrames();
    start();
    for (const auto& packet : stream.packets) {
        thread_->fillPacket(packet);
    }
    thread_->fillPacket(makeEndPacket(true));
    ASSERT_THAT(observer_->waitForEvents(30), SizeIs(30));
    stop();
    const std::weak_ptr<VideoDecodeThread> watched = thread_;
    thread_.reset();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(videoFakes().liveContexts, 0);

    // The frames outlive their thread: their way back leads nowhere now.
    auto frames = observer_->takeFrames();
    ASSERT_THAT(frames, SizeIs(30));
    EXPECT_TRUE(test::planesOf(*frames[29]) == stream.expected(29));
    frames.clear();
    EXPECT_EQ(observer_->returned, 0);
}

TEST_F(VideoDecodeThreadTest, GivesBuffersBackOnAnyThread) {
    const auto stream = test::makeVideoStream("-c:v mpeg4", "mp4", 64, 48, 10);
    videoFakes() = {};
    opened_ = thread_->open(stream.codecType, stream.parameters.get(), stream.pixFormat, false, HW_DECODE_NONE, false,
                            observer_);
    ASSERT_TRUE(opened_);
    observer_->keepFrames();
    start();
    for (const auto& packet : stream.packets) {
        thread_->fillPacket(packet);
    }
    thread_->fillPacket(makeEndPacket(true));
    ASSERT_THAT(observer_->waitForEvents(10), SizeIs(10));
    std::thread player([frames = observer_->takeFrames()]() mutable { frames.clear(); });
    player.join();
    EXPECT_EQ(observer_->returned, 10);
    stop();
}

// A player's life in quick motion, with seeks at any moment.
TEST_F(VideoDecodeThreadTest, SurvivesSeeksAndStopsAtAnyMoment) {
    const auto stream = test::makeVideoStream("-c:v libx264 -bf 2 -g 10", "mp4", 64, 48, 30);
    for (int round = 0; round < 15; ++round) {
        videoFakes() = {};
        observer_ = std::make_shared<RecordingObserver>();
        thread_ = std::make_shared<VideoDecodeThread>();
        opened_ = thread_->open(stream.codecType, stream.parameters.get(), stream.pixFormat, false, HW_DECODE_NONE,
                                round % 2, observer_);
        ASSERT_TRUE(opened_);
        start();
        std::thread host([&] {
            for (int i = 0; i < 30; ++i) {
                thread_->checkBuffer(i * 40);
                thread_->clearBuffer(i * 40);
                std::this_thread::yield();
            }
        });
        for (size_t i = 0; i < stream.packets.size(); ++i) {
            thread_->fillPacket(stream.packets[i]);
            observer_->waiting = static_cast<int>(i % 5);
            if (i % 7 == static_cast<size_t>(round % 7)) {
                thread_->seek(static_cast<int>(i) * 40);
            }
            if (i % 9 == 3) {
                thread_->fillPacket(test::makeFlushPacket());
            }
        }
        host.join();
        observer_->waiting = 0;
        if (round % 3) {
            thread_->seek(0);
            for (const auto& packet : stream.packets) {
                thread_->fillPacket(packet);
            }
            thread_->fillPacket(makeEndPacket(true));
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (thread_->getQueuePacketSize() > 0 && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::yield();
            }
            EXPECT_EQ(thread_->getQueuePacketSize(), 0) << "round " << round;
        }
        stop();
        thread_.reset();
        EXPECT_EQ(videoFakes().liveContexts, 0);
    }
}

}  // namespace
}  // namespace kelp
