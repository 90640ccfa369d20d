#include "kelp_player/packet_sink.h"
#include "playtask/pipeline_fixture.h"

// Each figure of the statistics comes from the stage that counts it.

namespace kelp::test {
namespace {

class PlayTaskStatistics : public PlayTaskPipeline {
protected:
    // A stage tells its counts to be read alone.
    template <class Told>
    static Told& writable(const Told& told) {
        return const_cast<Told&>(told);
    }

    // Stages that nobody runs, with a figure of its own for everything.
    void standInStages() {
        const auto videoDecode = std::make_shared<VideoDecodeThread>();
        auto& pictures = writable(videoDecode->counts());
        pictures.opened("hevc_cuvid", true);
        pictures.frames.set(21);
        pictures.late.set(22);
        writable(videoDecode->level()).set(23, 24);

        const auto videoPlay = std::make_shared<VideoPlayThread>(false, nullptr);
        auto& shown = writable(videoPlay->counts());
        shown.shown.set(31);
        shown.late.set(32);
        shown.repeated.set(33);
        shown.aheadOfMasterMs.set(-34);
        writable(videoPlay->level()).set(35, 36);

        const auto audioDecode = std::make_shared<AudioDecodeThread>();
        auto& sound = writable(audioDecode->counts());
        sound.opened("libopus", false);
        sound.frames.set(41);
        writable(audioDecode->level()).set(42, 43);

        const auto audioPlay = std::make_shared<AudioPlayThread>();
        auto& heard = writable(audioPlay->counts());
        heard.blocks.set(51);
        heard.underruns.set(52);
        heard.output.set(SOUND_OUTPUT_SILENCE);
        heard.aheadOfMasterMs.set(53);
        writable(audioPlay->level()).set(54, 55);

        auto& videoRead = writable(under.peer.parser()->counts(TRACK_KIND_VIDEO));
        videoRead.add(61, FakeTime::nowMs());
        videoRead.add(62, FakeTime::nowMs());
        writable(under.peer.parser()->counts(TRACK_KIND_AUDIO)).add(71, FakeTime::nowMs());

        under.peer.set(videoDecode);
        under.peer.set(videoPlay);
        under.peer.set(audioDecode);
        under.peer.set(audioPlay);
    }
};

TEST_F(PlayTaskStatistics, TellEachFigureOfTheStageThatCountsIt) {
    load("av.mp4");
    standInStages();
    const Statistics told = under.task->getStatistics();

    EXPECT_EQ(told.video.packets, 2);
    EXPECT_EQ(told.video.bytes, 61 + 62);
    EXPECT_EQ(told.video.bitRate, 8 * (61 + 62));
    EXPECT_EQ(told.video.decoder, "hevc_cuvid");
    EXPECT_TRUE(told.video.isHardware);
    EXPECT_EQ(told.video.decoded, 21);
    EXPECT_EQ(told.video.late, 22 + 32);
    EXPECT_EQ(told.video.queue.count, 23);
    EXPECT_EQ(told.video.queue.durationMs, 24);
    EXPECT_EQ(told.video.shown, 31);
    EXPECT_EQ(told.video.repeated, 33);
    EXPECT_EQ(told.video.aheadOfMasterMs, -34);
    EXPECT_EQ(told.video.pictures.count, 35);
    EXPECT_EQ(told.video.pictures.durationMs, 36);

    EXPECT_EQ(told.audio.packets, 1);
    EXPECT_EQ(told.audio.bytes, 71);
    EXPECT_EQ(told.audio.bitRate, 8 * 71);
    EXPECT_EQ(told.audio.sampleRate, 48000);
    EXPECT_EQ(told.audio.decoder, "libopus");
    EXPECT_FALSE(told.audio.isHardware);
    EXPECT_EQ(told.audio.decoded, 41);
    EXPECT_EQ(told.audio.queue.count, 42);
    EXPECT_EQ(told.audio.queue.durationMs, 43);
    EXPECT_EQ(told.audio.blocks, 51);
    EXPECT_EQ(told.audio.underruns, 52);
    EXPECT_EQ(told.audio.output, SOUND_OUTPUT_SILENCE);
    EXPECT_EQ(told.audio.aheadOfMasterMs, 53);
    EXPECT_EQ(told.audio.sound.count, 54);
    EXPECT_EQ(told.audio.sound.durationMs, 55);

    EXPECT_EQ(told.liveJitterMs, 0);
    EXPECT_EQ(told.packetSinkLongestMs, 0);
}

TEST_F(PlayTaskStatistics, TellOfTheBitsOfTheLastSecondAlone) {
    load("av.mp4");
    standInStages();
    FakeTime::advanceMs(1200);
    const Statistics told = under.task->getStatistics();
    EXPECT_EQ(told.video.bitRate, 0);
    EXPECT_EQ(told.audio.bitRate, 0);
    EXPECT_EQ(told.video.bytes, 61 + 62);
}

// Takes three milliseconds for each packet, of the time that the player knows.
class SlowSink : public ExternPacketSink {
public:
    virtual ~SlowSink() = default;
    void onStreams(const std::vector<PacketStream>&) override {}
    void onPacket(const Packet&) override { FakeTime::advanceMs(3); }
};

TEST_F(PlayTaskStatistics, TellHowLongThePacketSinkTakes) {
    SlowSink slow;
    under.task->setPacketSink(&slow);
    load("audio.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return under.task->getStatistics().audio.packets > 20; }));
    const Statistics told = under.task->getStatistics();
    EXPECT_GE(told.packetSinkLongestMs, 3);
    EXPECT_GE(told.packetSinkMs, 3 * 20);
    EXPECT_LE(told.packetSinkLongestMs, told.packetSinkMs);
    under.task->stop();
    under.task->setPacketSink(nullptr);
}

// Its packets come a picture's time one after the other, but for one that is late. The pictures' own rests move the
// clock a little too.
TEST_F(PlayTaskStatistics, TellTheDelayAndJitterOfALiveSource) {
    constexpr int kLate = 20;
    under.task->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 64, 48);
    PipelineFaults::isLive = true;
    load("video.mp4");
    std::atomic<int> packets{0};
    std::atomic<bool> goesOn{false};
    PipelineFaults::atRead = [&] {
        TaskUnderTest::waitUntil([&] { return packets != kLate || goesOn; });
        FakeTime::advanceMs(packets == kLate ? 340 : 40);
        ++packets;
        TaskUnderTest::waitUntil([&] { return packets != kLate + 2 || !goesOn; });
    };
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return packets == kLate; }));
    const double jitterBefore = under.task->getStatistics().liveJitterMs;
    EXPECT_LT(under.task->getStatistics().liveDelayMs, 150);
    goesOn = true;
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return under.task->getStatistics().liveDelayMs > 150; }));
    const Statistics told = under.task->getStatistics();
    EXPECT_GT(told.liveJitterMs, jitterBefore);
    EXPECT_LT(told.liveJitterMs, told.liveDelayMs);
    goesOn = false;
    under.task->stop();
}

}  // namespace
}  // namespace kelp::test
