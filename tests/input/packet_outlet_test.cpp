#include "input/packet_outlet.h"

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <tuple>

#include "input/stream_parser_fixture.h"
#include "kelp_player/packet_sink.h"
#include "support/gate.h"

// What a host's packet sink gets of what is read, and how it is taken back.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Writes each call down.
class WritingSink : public ExternPacketSink {
public:
    void onStreams(const std::vector<PacketStream>& streams) override {
        std::string text = "streams";
        described = streams;
        for (const auto& stream : streams) {
            text += " " + std::to_string(stream.track) + ":" + stream.codec + ":" + std::to_string(stream.timeBaseNum) +
                    "/" + std::to_string(stream.timeBaseDen);
            configuration.assign(stream.configuration, stream.configuration + stream.configurationSize);
        }
        calls.push_back(text);
    }
    void onPacket(const Packet& packet) override {
        calls.push_back((packet.kind == TRACK_KIND_VIDEO ? "video " : "audio ") + std::to_string(packet.pts) +
                        (packet.isKeyFrame && packet.kind == TRACK_KIND_VIDEO ? " key" : ""));
        bytes.assign(packet.data, packet.data + packet.size);
        told = packet;
        inPacket();
    }
    void onGap() override { calls.push_back("gap"); }
    void onEnd() override { calls.push_back("end"); }

    std::vector<std::string> take() { return std::exchange(calls, {}); }

    std::vector<std::string> calls;
    std::vector<uint8_t> bytes;  // of the last packet
    std::vector<uint8_t> configuration;
    std::vector<PacketStream> described;  // what it points at is gone, as for the next
    Packet told;
    std::function<void()> inPacket = [] {};
};
#pragma GCC diagnostic pop

const std::string kStreams = "streams 0:h264:1/90000 1:aac:1/44100";

class PacketOutletTest : public StreamParserTest {
protected:
    void use(ExternPacketSink* wanted) { outlet->waitUntilUncalled(outlet->set(wanted)); }

    // A live source; a pause of it ends at once.
    void openPausable(std::vector<SyntheticStream> streams) {
        hooks().readPause = [this](AVFormatContext*) {
            parser->pause(false);
            return 0;
        };
        hooks().readPlay = [](AVFormatContext*) { return 0; };
        use(&sink);
        SyntheticInput input;
        input.formatName = "rtsp";
        input.streams = std::move(streams);
        ASSERT_TRUE(open(input));
    }

    WritingSink sink;
};

TEST_F(PacketOutletTest, TellsTheStreamsAndThenThePacketsInTheirOrder) {
    use(&sink);
    ASSERT_TRUE(open());
    script.video(-3600).audio(0).key(0).audio(1024).video(3600);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "audio 0", "video 0 key", "audio 1024", "video 3600", "end"));
}

TEST_F(PacketOutletTest, TellsAllThatIsKnownOfStreamsAndPackets) {
    use(&sink);
    SyntheticInput input;
    input.streams[0].timeBase = {2, 45'000};
    input.streams[0].avgFrameRate = {25, 2};
    input.streams[1].channels = 1;
    ASSERT_TRUE(open(input));
    AVPacket read{};
    script.packet([&](AVPacket* packet) {
        av_new_packet(packet, 3);
        packet->stream_index = 1;
        packet->pts = 300;
        packet->dts = 200;
        packet->duration = 100;
        read = *packet;
    });
    runScript();
    ASSERT_EQ(sink.described.size(), 2U);
    const auto& [pictures, sound] = std::tie(sink.described[0], sink.described[1]);
    EXPECT_EQ(pictures.kind, TRACK_KIND_VIDEO);
    EXPECT_EQ(pictures.timeBaseNum, 2);
    EXPECT_EQ(pictures.timeBaseDen, 45'000);
    EXPECT_EQ(pictures.width, 320);
    EXPECT_EQ(pictures.height, 240);
    EXPECT_EQ(pictures.frameRate, 12.5);
    EXPECT_TRUE(pictures.parameters);
    EXPECT_EQ(sound.kind, TRACK_KIND_AUDIO);
    EXPECT_EQ(sound.frameRate, 0);
    EXPECT_EQ(sound.sampleRate, 44'100);
    EXPECT_EQ(sound.channels, 1);
    EXPECT_TRUE(sound.parameters);
    EXPECT_EQ(sink.told.track, 1);
    EXPECT_EQ(sink.told.kind, TRACK_KIND_AUDIO);
    EXPECT_EQ(sink.told.pts, 300);
    EXPECT_EQ(sink.told.dts, 200);
    EXPECT_EQ(sink.told.duration, 100);
    EXPECT_EQ(sink.told.data, read.data);
    EXPECT_EQ(sink.told.size, 3);
    EXPECT_TRUE(sink.told.packet);
}

TEST_F(PacketOutletTest, LeavesThePlaybackAsItIsWithoutASink) {
    ASSERT_TRUE(open());
    script.key(0).audio(0);
    runScript();
    EXPECT_EQ(outlet->busyUs(), 0);
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0"));
}

TEST_F(PacketOutletTest, HandsOutWhatTheSourceHasAndNotWhatTheDecoderGets) {
    use(&sink);
    SyntheticInput input;
    input.startTimeUs = 1'000'000;
    input.streams = {videoStream()};
    input.streams[0].extraData = {1,    0x42, 0xC0, 0x0A, 0xFF, 0xE1, 0,    4,    0x67, 0x42,
                                  0xC0, 0x0A, 1,    0,    4,    0x68, 0xCE, 0x38, 0x80};
    ASSERT_TRUE(open(input));
    const std::vector<uint8_t> unit = {0, 0, 0, 2, 0x65, 0x88};
    script.packet([&](AVPacket* packet) {
        av_new_packet(packet, static_cast<int>(unit.size()));
        std::copy(unit.begin(), unit.end(), packet->data);
        packet->pts = packet->dts = 93600;
        packet->flags = AV_PKT_FLAG_KEY;
    });
    runScript();
    EXPECT_EQ(sink.bytes, unit);
    EXPECT_EQ(sink.configuration, input.streams[0].extraData);
    // On the source's own time line; the decoder's begins at 0.
    EXPECT_THAT(sink.calls, ElementsAre("streams 0:h264:1/90000", "video 93600 key", "end"));
    ASSERT_EQ(observer->videoPackets().size(), 1U);
    EXPECT_EQ(observer->videoPackets()[0]->pts, 3600);
    EXPECT_EQ(observer->videoPackets()[0]->data[0], 0);
    EXPECT_NE(observer->videoPackets()[0]->size, static_cast<int>(unit.size()));
}

TEST_F(PacketOutletTest, TellsWherePacketsDoNotGoOn) {
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    use(&sink);
    ASSERT_TRUE(open());
    script.key(0).then([this] { parser->seek(30'000); }).video(2'696'400).key(2'700'000);
    runScript();
    // The packet is the one that was being read when the seek was asked for.
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key", "video 2696400", "gap", "video 2700000 key", "end"));
}

TEST_F(PacketOutletTest, TellsThatALiveSourceDoesNotGoOnBehindAPause) {
    openPausable({videoStream(), audioStream()});
    script.key(0).then([this] { parser->pause(true); }).audio(0).key(3600);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key", "audio 0", "gap", "video 3600 key", "end"));
}

TEST_F(PacketOutletTest, TellsThatLiveSoundAloneDoesNotGoOnBehindAPause) {
    openPausable({audioStream()});
    script.audio(0, 0).then([this] { parser->pause(true); }).audio(1024, 0).audio(0, 0);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre("streams 0:aac:1/44100", "audio 0", "audio 1024", "gap", "audio 0", "end"));
}

TEST_F(PacketOutletTest, TellsThatTheTurnsOfALoopDoNotGoOn) {
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    use(&sink);
    ASSERT_TRUE(open());
    parser->setLoop(Loop{0, 1000});
    script.key(0).audio(0).key(90'000).audio(44'100).key(0);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key", "audio 0", "gap", "video 0 key", "end"));
}

TEST_F(PacketOutletTest, TellsTheStreamsAgainBehindTheEnd) {
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    use(&sink);
    ASSERT_TRUE(open());
    observer->onEvent = [this](const std::string& event) {
        if (event == "completed") {
            parser->seek(0);
        }
    };
    script.key(0).endOfFile().key(0);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key", "end", kStreams, "video 0 key", "end"));
}

TEST_F(PacketOutletTest, TellsTheStreamsBeforeSoundThatIsReadOnceMore) {
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    use(&sink);
    SyntheticInput input;
    input.streams.push_back(audioStream(AV_CODEC_ID_MP3));
    input.install();
    hooks().openInput = [make = hooks().openInput](auto* context, const char* path, auto* options) {
        const int result = make(context, path, options);
        (*context)->pb->seekable = AVIO_SEEKABLE_NORMAL;
        return result;
    };
    ASSERT_TRUE(parser->open("input", 0));
    observer->audibleMs = 0;
    script.key(0).audio(0).then([this] { parser->selectTrack(TRACK_KIND_AUDIO, 2); }).audio(1024);
    // Back at once, before anything of the other one was handed on.
    script.then([this] { parser->selectTrack(TRACK_KIND_AUDIO, 1); }).key(0).key(0).audio(0);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key", "audio 0", "audio 1024", kStreams, "audio 0", "end"));
}

TEST_F(PacketOutletTest, TellsNothingOfStreamsThatAreElsewhere) {
    const auto close = [](AVFormatContext* context) { avformat_free_context(context); };
    const std::unique_ptr<AVFormatContext, decltype(close)> context(__real_avformat_alloc_context(), close);
    std::array<const AVStream*, 3> streams{};
    for (auto& stream : streams) {
        stream = avformat_new_stream(context.get(), nullptr);
    }
    AVPacket packet{};
    outlet->move(streams[0], nullptr);
    use(&sink);
    outlet->packet({streams[0], nullptr, nullptr}, packet);
    outlet->move(streams[1], nullptr);
    outlet->packet({streams[1], nullptr, nullptr}, packet);
    EXPECT_THAT(sink.take(), ElementsAre("streams 0:none:0/0", "video 0", "audio 0"));
    outlet->packet({streams[2], nullptr, nullptr}, packet);
    EXPECT_EQ(sink.calls.size(), 2U);
}

TEST_F(PacketOutletTest, BeginsAndEndsInMidStream) {
    ASSERT_TRUE(open());
    WritingSink other;
    script.key(0).then([&] { use(&sink); }).video(3600).then([&] { use(&other); }).audio(1024);
    script.then([&] { use(&sink); }).video(7200).then([&] { use(nullptr); }).video(10800);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 3600", kStreams, "video 7200"));
    EXPECT_THAT(other.calls, ElementsAre(kStreams, "audio 1024"));
}

TEST_F(PacketOutletTest, MayBeTakenBackFromWithinItsCall) {
    use(&sink);
    ASSERT_TRUE(open());
    sink.inPacket = [this] { use(nullptr); };
    LogCapture errors(1);
    script.key(0).video(3600);
    runScript();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key"));
    EXPECT_EQ(errors.count("still being called"), 0);
}

TEST_F(PacketOutletTest, LetsACallReturnBeforeItsSinkMayEnd) {
    use(&sink);
    ASSERT_TRUE(open());
    Gate called;
    Gate mayReturn;
    std::atomic<bool> returned{false};
    sink.inPacket = [&] {
        called.open();
        mayReturn.wait();
        returned = true;
    };
    script.key(0).video(3600);
    script.install();
    ASSERT_TRUE(parser->start());
    called.wait();
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // while it is waited for
        mayReturn.open();
    });
    use(nullptr);
    EXPECT_TRUE(returned);
    later.join();
    parser->stop();
    EXPECT_THAT(sink.calls, ElementsAre(kStreams, "video 0 key"));
}

TEST_F(PacketOutletTest, DoesNotWaitForEverForALockOfItsHost) {
    use(&sink);
    ASSERT_TRUE(open());
    Gate called;
    Gate mayReturn;
    sink.inPacket = [&] {
        called.open();
        mayReturn.wait();
    };
    script.key(0);
    script.install();
    ASSERT_TRUE(parser->start());
    called.wait();
    LogCapture errors(1);
    use(nullptr);
    EXPECT_EQ(errors.count("[PacketOutlet]: setPacketSink, the host's packet sink is still being called after 1000 ms, "
                           "it must not end yet\n"),
              1);
    mayReturn.open();
    parser->stop();
}

TEST_F(PacketOutletTest, TellsHowLongItHoldsUpReading) {
    use(&sink);
    ASSERT_TRUE(open());
    int ms = 0;
    sink.inPacket = [&] { FakeTime::advanceMs(++ms); };
    script.key(0).video(3600).video(7200);
    runScript();
    EXPECT_EQ(outlet->busyUs(), 6000);
    EXPECT_EQ(outlet->longestUs(), 3000);
}

}  // namespace
}  // namespace kelp::test
