#include "decode/audio_decode_thread.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "decode/audio_decoder_factory.h"
#include "decode/audio_library_fakes.h"
#include "decode/audio_test_support.h"
#include "input/loop_turn.h"
#include "kelp_player/codec_info.h"
#include "support/fake_time.h"
#include "support/log_capture.h"
#include "support/private_member.h"

namespace kelp::test {

using FactoryMember = std::shared_ptr<AudioDecoderFactory> AudioDecodeThread::*;
FactoryMember privateMember(PrivateMember<struct FactoryTag, FactoryMember>);
template struct ExposeMember<struct FactoryTag, &AudioDecodeThread::decoderFactory_>;

namespace {

using testing::ElementsAre;

// What happened on all sides of the thread, in order. Any thread may write.
class Events {
public:
    void add(std::string event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }

    std::vector<std::string> all() {
        std::lock_guard lock(mutex_);
        return events_;
    }

    // Waits in real time until there are `count` events, and gives them.
    std::vector<std::string> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
        return events_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

// A decoder that yields `framesPerPacket` frames at the packet's time.
class FakeDecoder : public IAudioDecoder {
public:
    explicit FakeDecoder(Events* events) : events_(events) {}
    ~FakeDecoder() override { events_->add("destroyed"); }

    bool open(AudioCodecType codecType, const void* codecParameters,
              std::shared_ptr<AudioDecoderObserver> observer) override {
        events_->add("open " + std::to_string(codecType) + (codecParameters ? " with parameters" : ""));
        if (opens) {
            observer_ = std::move(observer);
        }
        return opens;
    }

    bool setOutputSpec(AudioOutputSpec spec) override {
        events_->add("spec " + std::to_string(spec.channels) + " " + std::to_string(spec.sampleRate) + " " +
                     std::to_string(spec.sampleFormat));
        return spec.sampleFormat == 1;
    }

    void close() override { events_->add("close"); }

    void insertPacket(MediaPacket* packet) override {
        events_->add("packet " + std::to_string(packet->pts));
        for (int i = 0; i < framesPerPacket; ++i) {
            auto frame = std::make_shared<AudioFrameInfo>();
            frame->pts = packet->pts;
            frame->duration = 1;
            frame->dataSize = frameBytes;
            frame->buffer = frameBytes > 0 ? observer_->allocPcmBuffer(frameBytes) : nullptr;
            observer_->onAudioDecoded(frame);
        }
    }

    void flush() override { events_->add("flush"); }

    void setNeededFrom(int64_t timeMs) override { neededFrom.push_back(timeMs); }

    bool openSync(bool open) override {
        events_->add(open ? "sync on" : "sync off");
        return true;
    }

    bool isSyncOpened() override { return false; }

    bool opens = true;
    int framesPerPacket = 1;
    unsigned frameBytes = 0;
    std::vector<int64_t> neededFrom;  // for each packet

private:
    Events* const events_;
    std::shared_ptr<AudioDecoderObserver> observer_;
};

class FakeFactory : public AudioDecoderFactory {
public:
    std::shared_ptr<IAudioDecoder> create(AudioCodecType codecType) override {
        typeAsked = codecType;
        return std::move(decoder);
    }

    std::shared_ptr<IAudioDecoder> decoder;
    AudioCodecType typeAsked = AUDIO_CODEC_NONE;
};

class ThreadObserver : public AudioDecodeThreadObserver {
public:
    explicit ThreadObserver(Events* events) : events_(events) {}
    virtual ~ThreadObserver() = default;

    void onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) override {
        ++queueSize;
        bytes += frame->dataSize;
        if (keepsFrames) {
            frames.push_back(frame);
        }
        events_->add("frame " + std::to_string(frame->pts));
    }

    int onSpeedUpSamples() override { return 7; }
    int onAudioFrameQueueSize() override { return queueSize; }

    void onAudioDecodeSeek(int seekTimeMs, bool flush) override {
        seekThread = std::this_thread::get_id();
        events_->add("seek " + std::to_string(seekTimeMs) + (flush ? " flush" : ""));
    }

    void onAudioDecodeTrack() override {
        queueSize = queueSize > 1 ? 1 : queueSize.load();  // the frames that wait are replaced
        events_->add("track");
    }

    std::shared_ptr<FrameBuffer> allocPcmBuffer(unsigned int size) override {
        auto buffer = std::make_shared<FrameBuffer>();
        buffer->data = new unsigned char[size];
        buffer->size = size;
        return buffer;
    }

    void freePcmBuffer(std::shared_ptr<FrameBuffer> /*buffer*/) override { ++buffersGivenBack; }

    bool keepsFrames = false;                             // set before the thread starts
    std::vector<std::shared_ptr<AudioFrameInfo>> frames;  // the thread's until it has stopped
    std::atomic<int> queueSize{0};
    std::atomic<unsigned> bytes{0};
    std::atomic<int> buffersGivenBack{0};
    std::atomic<std::thread::id> seekThread;

private:
    Events* const events_;
};

class AudioDecodeThreadTest : public testing::Test {
protected:
    AudioDecodeThreadTest() {
        FakeTime::reset();
        audioFakes() = {};
        factory->decoder = decoder;
        (*thread).*privateMember(PrivateMember<FactoryTag, FactoryMember>{}) = factory;
    }

    ~AudioDecodeThreadTest() override {
        FakeTime::setManual(false);
        thread->stop();
    }

    bool open() { return thread->open(AUDIO_CODEC_MP3, nullptr, {}, observer); }

    // Opens, starts and drops what happened till then.
    void run() {
        ASSERT_TRUE(open());
        ASSERT_TRUE(thread->start());
    }

    // The thread sleeps because it may take no packet.
    static bool idles() { return FakeTime::waitForSleepers(1); }

    Events events;
    std::shared_ptr<FakeFactory> factory = std::make_shared<FakeFactory>();
    std::shared_ptr<FakeDecoder> decoder = std::make_shared<FakeDecoder>(&events);
    std::shared_ptr<ThreadObserver> observer = std::make_shared<ThreadObserver>(&events);
    std::shared_ptr<AudioDecodeThread> thread = std::make_shared<AudioDecodeThread>();
};

TEST_F(AudioDecodeThreadTest, OpensTheDecoderAndHandsItTheSpec) {
    const int parameters = 0;
    EXPECT_TRUE(thread->open(AUDIO_CODEC_VORBIS, &parameters, {1, 8000, 1}, observer));
    EXPECT_EQ(factory->typeAsked, AUDIO_CODEC_VORBIS);
    EXPECT_THAT(events.all(), ElementsAre("open 2 with parameters", "spec 1 8000 1"));
    thread->start();
}

std::shared_ptr<AudioPacket> packetOf(const std::shared_ptr<const CodecInfo>& track, int64_t pts) {
    auto packet = makeAudioPacket(pts);
    packet->track = track;
    return packet;
}

std::shared_ptr<const CodecInfo> aacTrack() {
    auto track = std::make_shared<CodecInfo>();
    track->audioCodecType = AUDIO_CODEC_AAC;
    return track;
}

TEST_F(AudioDecodeThreadTest, ChangesTheDecoderWithTheTrackOfThePackets) {
    ASSERT_TRUE(thread->open(AUDIO_CODEC_MP3, nullptr, {2, 48000, 1}, observer));
    thread->openSync(true);
    ASSERT_TRUE(thread->start());
    thread->fillPacket(makeAudioPacket(0));
    events.waitFor(5);
    const auto second = std::make_shared<FakeDecoder>(&events);
    factory->decoder = second;
    const auto track = aacTrack();
    thread->fillPacket(packetOf(track, 10));
    thread->fillPacket(packetOf(track, 20));
    EXPECT_THAT(events.waitFor(14),
                ElementsAre("open 0", "spec 2 48000 1", "sync on", "packet 0", "frame 0", "close", "open 1",
                            "spec 2 48000 1", "sync on", "track", "packet 10", "frame 10", "packet 20", "frame 20"));
}

std::shared_ptr<AudioPacket> packetOfTurn(int64_t shiftMs, int64_t toUs = LoopTurn::kOpen) {
    auto packet = makeAudioPacket(0);
    packet->turn = std::make_shared<LoopTurn>(LoopTurn{shiftMs * 1000, shiftMs, 0, toUs});
    return packet;
}

TEST_F(AudioDecodeThreadTest, CutsTurnsBySamplesOfItsSpec) {
    ASSERT_TRUE(thread->open(AUDIO_CODEC_MP3, nullptr, {1, 8000, 1}, observer));
    decoder->frameBytes = 400;
    ASSERT_TRUE(thread->start());
    thread->fillPacket(packetOfTurn(0, /*toUs=*/10'000));
    events.waitFor(4);
    EXPECT_EQ(observer->bytes, 2U * 80);
}

TEST_F(AudioDecodeThreadTest, EmptiesNoDecoderWhereTheLoopAloneChanges) {
    run();
    decoder->framesPerPacket = 0;
    thread->fillPacket(packetOfTurn(1000));
    thread->fillPacket(packetOfTurn(1000, /*toUs=*/10'000));
    const auto all = events.waitFor(4);
    EXPECT_EQ(std::vector(all.begin() + 2, all.end()), (std::vector<std::string>{"packet 0", "packet 0"}));
}

TEST_F(AudioDecodeThreadTest, EmptiesTheDecoderOnceBetweenTwoTurns) {
    run();
    decoder->framesPerPacket = 0;
    thread->fillPacket(packetOfTurn(0));
    thread->fillPacket(packetOfTurn(1000));
    auto end = std::make_shared<AudioPacket>();
    end->pts = 77;
    thread->fillPacket(end);
    thread->fillPacket(packetOfTurn(2000));
    const auto all = events.waitFor(9);
    EXPECT_EQ(
        std::vector(all.begin() + 2, all.end()),
        (std::vector<std::string>{"packet 0", "packet -1", "flush", "packet 0", "packet 77", "flush", "packet 0"}));
}

TEST_F(AudioDecodeThreadTest, IsSilentWhereTheDecoderOfATrackDoesNotOpen) {
    run();
    thread->fillPacket(makeAudioPacket(0));
    events.waitFor(4);
    const auto broken = std::make_shared<FakeDecoder>(&events);
    broken->opens = false;
    factory->decoder = broken;
    const auto track = aacTrack();
    thread->fillPacket(packetOf(track, 10));
    events.waitFor(8);
    factory->decoder = std::make_shared<FakeDecoder>(&events);
    thread->fillPacket(packetOf(aacTrack(), 20));
    const auto all = events.waitFor(14);
    EXPECT_EQ(std::count(all.begin(), all.end(), "packet 10"), 0);
    EXPECT_EQ(all.back(), "frame 20");
}

TEST_F(AudioDecodeThreadTest, DecodesTheNextTrackThoughNoRoomIsLeft) {
    FakeTime::setManual(true);
    observer->queueSize = 20;
    run();
    ASSERT_TRUE(idles());
    thread->fillPacket(makeAudioPacket(0));
    thread->readAgain();
    EXPECT_EQ(thread->getQueuePacketSize(), 0);
    factory->decoder = std::make_shared<FakeDecoder>(&events);
    thread->fillPacket(packetOf(aacTrack(), 10));
    const auto all = events.waitFor(9);
    EXPECT_EQ(all.back(), "frame 10");
    EXPECT_EQ(std::count(all.begin(), all.end(), "packet 0"), 0);
    observer->queueSize = 20;
    thread->fillPacket(makeAudioPacket(20));
    ASSERT_TRUE(idles());
    EXPECT_EQ(thread->getQueuePacketSize(), 1) << "the hurry is over";
}

TEST_F(AudioDecodeThreadTest, OpensThoughTheDecoderRefusesTheSpec) {
    EXPECT_TRUE(thread->open(AUDIO_CODEC_MP3, nullptr, {2, 48000, 9}, observer));
    EXPECT_THAT(events.all(), ElementsAre("open 0", "spec 2 48000 9"));
    thread->start();
}

TEST_F(AudioDecodeThreadTest, FailsToOpenWithoutADecoder) {
    LogCapture log(1);
    factory->decoder.reset();
    EXPECT_FALSE(open());
    EXPECT_THAT(log.lines(), ElementsAre("[AudioDecodeThread]: play, failed open audio decoder\n"));
    EXPECT_FALSE(thread->openSync(true));
}

TEST_F(AudioDecodeThreadTest, FailsToOpenWithADecoderThatDoesNotOpen) {
    LogCapture log(1);
    decoder->opens = false;
    EXPECT_FALSE(open());
    EXPECT_THAT(log.lines(), ElementsAre("[AudioDecodeThread]: play, failed open audio decoder\n"));
    EXPECT_THAT(events.all(), ElementsAre("open 0"));
}

TEST_F(AudioDecodeThreadTest, DiesAfterAnOpenThatFailed) {
    auto other = std::make_shared<AudioDecodeThread>();
    EXPECT_FALSE(other->open(AUDIO_CODEC_NONE, nullptr, {}, observer));
    EXPECT_EQ(observer.use_count(), 2);
    const std::weak_ptr<AudioDecodeThread> weak = other;
    other.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(observer.use_count(), 1);
}

TEST_F(AudioDecodeThreadTest, MustBeShared) {
    AudioDecodeThread alone;
    EXPECT_THROW(alone.open(AUDIO_CODEC_MP3, nullptr, {}, observer), std::bad_weak_ptr);
}

TEST_F(AudioDecodeThreadTest, TurnsTheCorrectionOnOnlyWithADecoder) {
    EXPECT_FALSE(thread->openSync(true));
    run();
    EXPECT_TRUE(thread->openSync(true));
    EXPECT_TRUE(thread->openSync(false));
    EXPECT_THAT(events.all(), ElementsAre("open 0", "spec 2 48000 1", "sync on", "sync off"));
    thread->stop();
    EXPECT_FALSE(thread->openSync(true));
}

TEST_F(AudioDecodeThreadTest, DecodesPacketsInOrderAndPassesFramesOn) {
    run();
    EXPECT_GE(thread->fillPacket(makeAudioPacket(10)), 1);
    thread->fillPacket(makeAudioPacket(20));
    EXPECT_THAT(events.waitFor(6),
                ElementsAre("open 0", "spec 2 48000 1", "packet 10", "frame 10", "packet 20", "frame 20"));
    EXPECT_EQ(thread->getQueuePacketSize(), 0);
}

TEST_F(AudioDecodeThreadTest, TakesNoPacketWhileTwentyFramesWait) {
    FakeTime::setManual(true);
    observer->queueSize = 20;
    decoder->framesPerPacket = 3;
    run();
    ASSERT_TRUE(idles());
    EXPECT_EQ(thread->fillPacket(makeAudioPacket(10)), 1);
    EXPECT_EQ(thread->fillPacket(makeAudioPacket(20)), 2);
    for (int i = 0; i < 3; ++i) {
        FakeTime::advanceMs(30);
        ASSERT_TRUE(idles());
    }
    EXPECT_EQ(thread->getQueuePacketSize(), 2);

    // The test stands before the packet, not before each of its frames.
    observer->queueSize = 19;
    FakeTime::advanceMs(30);
    ASSERT_TRUE(idles());
    EXPECT_EQ(observer->queueSize, 22);
    EXPECT_EQ(thread->getQueuePacketSize(), 1);
    EXPECT_THAT(events.all(), ElementsAre("open 0", "spec 2 48000 1", "packet 10", "frame 10", "frame 10", "frame 10"));
}

// The play thread takes a frame every so many milliseconds; how many of them are still there when another may come in.
TEST_F(AudioDecodeThreadTest, LooksForRoomOnceForSomeFramesAndNotLaterThan30MsAfterTheFirst) {
    struct Pace {
        int frameMs;
        int looks;   // out of 60 frames
        int fullAt;  // frames in the queue at each of them
    };
    for (const Pace& pace :
         {Pace{21, 30, 18}, Pace{10, 15, 16}, Pace{15, 20, 17}, Pace{26, 30, 18}, Pace{40, 60, 19}}) {
        FakeTime::reset();
        FakeTime::setManual(true);
        thread = std::make_shared<AudioDecodeThread>();
        (*thread).*privateMember(PrivateMember<FactoryTag, FactoryMember>{}) = factory;
        observer->queueSize = 20;
        factory->decoder = decoder = std::make_shared<FakeDecoder>(&events);
        run();
        for (int i = 0; i < 100; ++i) {
            thread->fillPacket(makeAudioPacket(i));
        }
        thread->framesTaken(0);  // there is one who tells
        ASSERT_TRUE(idles());
        const int64_t looksBefore = FakeTime::sleepCount();
        for (int i = 0; i < 60; ++i) {
            FakeTime::advanceMs(pace.frameMs);
            const int left = --observer->queueSize;
            thread->framesTaken(left);
            ASSERT_TRUE(idles());
            EXPECT_EQ(observer->queueSize, left == pace.fullAt ? 20 : left) << pace.frameMs;
        }
        EXPECT_EQ(FakeTime::sleepCount() - looksBefore, pace.looks) << pace.frameMs;
        FakeTime::advanceMs(10'000);
        ASSERT_TRUE(idles());
        EXPECT_EQ(FakeTime::sleepCount() - looksBefore, pace.looks);
        thread->stop();
    }
}

TEST_F(AudioDecodeThreadTest, LooksForRoomAtOnceWhenHalfOfTheQueueIsEmpty) {
    FakeTime::setManual(true);
    observer->queueSize = 20;
    run();
    thread->fillPacket(makeAudioPacket(10));
    thread->framesTaken(20);
    ASSERT_TRUE(idles());
    // Frames that a jump has dropped, all at the same time.
    for (int left = 19; left > 10; --left) {
        observer->queueSize = left;
        thread->framesTaken(left);
    }
    EXPECT_EQ(thread->getQueuePacketSize(), 1);
    observer->queueSize = 10;
    thread->framesTaken(10);
    events.waitFor(4);
    EXPECT_EQ(thread->getQueuePacketSize(), 0);
}

TEST_F(AudioDecodeThreadTest, TakesNoPacketWithoutAnObserver) {
    FakeTime::setManual(true);
    ASSERT_TRUE(thread->start());
    ASSERT_TRUE(idles());
    thread->fillPacket(makeAudioPacket(10));
    FakeTime::advanceMs(30);
    ASSERT_TRUE(idles());
    EXPECT_EQ(thread->getQueuePacketSize(), 1);
}

TEST_F(AudioDecodeThreadTest, HasNothingInTheBufferBeforeTheFirstFrame) {
    FakeTime::setManual(true);
    observer->queueSize = 20;
    run();
    ASSERT_TRUE(idles());
    thread->fillPacket(makeAudioPacket(1000));
    LogCapture log;
    EXPECT_FALSE(thread->checkBuffer(1000));
    EXPECT_THAT(log.lines(),
                ElementsAre("[AudioDecodeThread]: checkBuffer, seekTimeMs:1000, "
                            "lastOutputPtsMs:9223372036854775807\n",
                            "[AudioDecodeThread]: checkBuffer, seek time is small than last output pts\n"));
    log.clear();
    EXPECT_FALSE(thread->clearBuffer(1000));
    EXPECT_THAT(log.lines(), ElementsAre("[AudioDecodeThread]: clearBuffer, seekTimeMs:1000, "
                                         "lastOutputPtsMs:9223372036854775807\n",
                                         "[AudioDecodeThread]: onSeek\n"));
    EXPECT_EQ(events.all().back(), "seek 1000");
}

TEST_F(AudioDecodeThreadTest, FindsTimesBetweenTheLastFrameAndTheLastPacket) {
    FakeTime::setManual(true);
    observer->queueSize = 19;
    run();
    thread->fillPacket(makeAudioPacket(100));
    ASSERT_TRUE(idles());
    ASSERT_EQ(events.all().back(), "frame 100");
    thread->fillPacket(makeAudioPacket(200));
    thread->fillPacket(makeAudioPacket(300));

    EXPECT_FALSE(thread->checkBuffer(99));
    EXPECT_TRUE(thread->checkBuffer(100));
    EXPECT_TRUE(thread->checkBuffer(300));
    EXPECT_FALSE(thread->checkBuffer(301));
    EXPECT_EQ(events.all().back(), "frame 100");

    EXPECT_TRUE(thread->clearBuffer(250));
    EXPECT_EQ(events.all().back(), "seek 250");
    EXPECT_EQ(observer->seekThread.load(), std::this_thread::get_id());
    EXPECT_EQ(thread->getQueuePacketSize(), 2);
    EXPECT_FALSE(thread->clearBuffer(301));
    EXPECT_EQ(events.all().back(), "seek 250");
    EXPECT_EQ(thread->getQueuePacketSize(), 2);
    // Refused, and announced all the same.
    EXPECT_FALSE(thread->clearBuffer(99));
    EXPECT_EQ(events.all().back(), "seek 99");
    EXPECT_THAT(events.all(), testing::Not(testing::Contains("flush")));
}

TEST_F(AudioDecodeThreadTest, FlushesTheDecoderBeforeItTellsOfASeek) {
    FakeTime::setManual(true);
    observer->queueSize = 19;
    run();
    thread->fillPacket(makeAudioPacket(100));
    ASSERT_TRUE(idles());
    thread->fillPacket(makeAudioPacket(200));
    LogCapture log;
    thread->seek(5000);
    EXPECT_EQ(thread->getQueuePacketSize(), 0);
    FakeTime::advanceMs(30);
    ASSERT_TRUE(idles());
    EXPECT_TRUE(log.has("[AudioDecodeThread]: onSeek\n"));
    EXPECT_THAT(events.all(),
                ElementsAre("open 0", "spec 2 48000 1", "packet 100", "frame 100", "flush", "seek 5000 flush"));

    // The old frame's time stands until the next frame.
    thread->fillPacket(makeAudioPacket(5000));
    EXPECT_TRUE(thread->checkBuffer(100));
    EXPECT_FALSE(thread->checkBuffer(99));
}

TEST_F(AudioDecodeThreadTest, TellsTheDecoderWhatASeekNeeds) {
    FakeTime::setManual(true);
    observer->queueSize = 20;
    run();
    ASSERT_TRUE(idles());
    thread->seek(1000);
    for (int64_t pts = 400; pts <= 1000; pts += 50) {
        thread->fillPacket(makeAudioPacket(pts));
    }
    observer->queueSize = 0;
    FakeTime::advanceMs(30);
    EXPECT_THAT(events.waitFor(30), testing::SizeIs(30));
    thread->stop();
    EXPECT_THAT(decoder->neededFrom, ElementsAre(401, 451, 501, 501, 501, 501, 501, 501, 501, 501, 501, 501, 501));
}

TEST_F(AudioDecodeThreadTest, ClosesAndDropsTheDecoderAtTheEnd) {
    LogCapture log;
    decoder.reset();
    run();
    thread->fillPacket(makeAudioPacket(10));
    events.waitFor(4);
    thread->stop();
    EXPECT_THAT(events.all(), ElementsAre("open 0", "spec 2 48000 1", "packet 10", "frame 10", "close", "destroyed"));
    EXPECT_EQ(log.count("[AudioDecodeThread]: onExit\n"), 1);
    EXPECT_EQ(log.count("[BaseDecodeThread]: [AudioDecodeThread], Run\n"), 1);
    const std::weak_ptr<AudioDecodeThread> weak = thread;
    thread = std::make_shared<AudioDecodeThread>();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(observer.use_count(), 1);
}

TEST_F(AudioDecodeThreadTest, ForwardsWhatTheDecoderAsks) {
    run();
    AudioDecoderObserver& toDecoder = *thread;
    EXPECT_EQ(toDecoder.onSpeedUpSamples(), 7);
    auto buffer = toDecoder.allocPcmBuffer(100);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->size, 100U);
    toDecoder.freePcmBuffer(std::move(buffer));
    EXPECT_EQ(observer->buffersGivenBack, 1);
}

TEST_F(AudioDecodeThreadTest, AnswersTheDecoderWithoutAnObserver) {
    AudioDecoderObserver& toDecoder = *thread;
    EXPECT_EQ(toDecoder.onSpeedUpSamples(), 0);
    EXPECT_FALSE(toDecoder.allocPcmBuffer(100));
    toDecoder.freePcmBuffer(std::make_shared<FrameBuffer>());
    auto frame = std::make_shared<AudioFrameInfo>();
    frame->pts = 10;
    toDecoder.onAudioDecoded(frame);
    EXPECT_EQ(frame.use_count(), 1);
}

// The way back of frames whose thread is gone leads nowhere.
TEST_F(AudioDecodeThreadTest, IsOutlivedByItsFrames) {
    (*thread).*privateMember(PrivateMember<FactoryTag, FactoryMember>{}) = std::make_shared<AudioDecoderFactory>();
    const ToneFile tone = makeToneFile("aac", "m4a", 440, 44100, 2, 1);
    observer->keepsFrames = true;
    ASSERT_TRUE(thread->open(tone.codecType, tone.parameters.get(), {}, observer));
    ASSERT_TRUE(thread->start());
    for (size_t i = 0; i < 10; ++i) {
        thread->fillPacket(tone.packets.at(i));
    }
    ASSERT_THAT(events.waitFor(5), testing::SizeIs(testing::Ge(5U)));
    thread->stop();
    const std::weak_ptr<AudioDecodeThread> watched = thread;
    thread = std::make_shared<AudioDecodeThread>();
    EXPECT_TRUE(watched.expired());

    const int givenBack = observer->buffersGivenBack;
    const std::weak_ptr<FrameBuffer> buffer = observer->frames.at(0)->buffer;
    EXPECT_FALSE(observer->frames.at(0)->allocBuffer(10));
    observer->frames.clear();
    EXPECT_TRUE(buffer.expired());
    EXPECT_EQ(observer->buffersGivenBack, givenBack);
}

// The real decoder on a real stream, while the other threads do what they may.
TEST_F(AudioDecodeThreadTest, PlaysAStreamUnderSeeksAndCorrections) {
    (*thread).*privateMember(PrivateMember<FactoryTag, FactoryMember>{}) = std::make_shared<AudioDecoderFactory>();
    const ToneFile tone = makeToneFile("aac", "m4a", 440, 44100, 2, 2);
    ASSERT_TRUE(thread->open(tone.codecType, tone.parameters.get(), {}, observer));
    ASSERT_TRUE(thread->openSync(true));
    ASSERT_TRUE(thread->start());

    std::atomic<bool> done{false};
    std::thread play([&] {
        while (!done) {
            observer->queueSize = 0;
            std::this_thread::yield();
        }
    });
    std::thread parser([&] {
        for (int round = 0; round < 3; ++round) {
            for (const auto& packet : tone.packets) {
                thread->fillPacket(packet);
            }
            thread->seek(round);
        }
    });
    for (int i = 0; i < 200; ++i) {
        thread->openSync(i % 2 != 0);
        thread->checkBuffer(i * 10);
        thread->clearBuffer(i * 10);
        std::this_thread::yield();
    }
    parser.join();
    // The last clear has left the decoder aimed at a time near the end, and of what comes before that nothing is heard.
    thread->seek(0);
    for (const auto& packet : tone.packets) {
        thread->fillPacket(packet);
    }
    // Real time: the decoder has real work to do.
    for (int i = 0; i < 2000 && thread->getQueuePacketSize() > 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(thread->getQueuePacketSize(), 0);
    thread->stop();
    done = true;
    play.join();
    EXPECT_GT(observer->bytes, 48000U * 4);  // a second at the least
    EXPECT_EQ(audioFakes().liveContexts, 0);
    EXPECT_EQ(audioFakes().liveResamplers, 0);
}

}  // namespace

}  // namespace kelp::test
