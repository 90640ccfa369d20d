// Other tracks of sources that can't go back: a server's streams, and a transport stream in datagrams.

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/free_ports.h"
#include "e2e/media.h"
#include "e2e/numbered.h"
#include "e2e/playback.h"
#include "e2e/rtsp_server.h"
#include "e2e/sound.h"

namespace kelp::test {
namespace {

constexpr int kComesWithinMs = 60000;  // for whatever must come; on an idle machine it takes three seconds at most
constexpr int kSecondSoundMs = 30000;  // its tone tells so much more
constexpr int kSomePictures = 25;

class LiveTracks : public testing::Test {
protected:
    LiveTracks() {
        recordSoundTo(recording_);
        playback_ = std::make_unique<Playback>();
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
        player().setAVSyncMode(SYNC_MASTER_AUDIO);
    }
    ~LiveTracks() override {
        player().stop();
        playback_.reset();
        std::filesystem::remove(recording_);
    }

    KelpPlayer& player() { return playback_->player(); }

    // The track of this kind that isn't played.
    int otherTrack(TrackKind kind) {
        for (const Track& track : player().getTracks()) {
            if (track.kind == kind && !track.isPlayed) {
                return track.number;
            }
        }
        return -1;
    }

    enum class Sound { None, First, Second };
    Sound heard() const {
        const auto moments = soundMoments(recording_);
        return moments.empty()                                   ? Sound::None
               : moments.back().streamMs >= kSecondSoundMs - 500 ? Sound::Second
                                                                 : Sound::First;
    }
    bool waitUntilHeard(const std::vector<Sound>& any) const {
        const auto isHeard = [&] { return std::ranges::find(any, heard()) != any.end(); };
        for (int i = 0; i < kComesWithinMs / 200 && !isHeard(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        return isHeard();
    }
    bool waitForMorePictures() { return sink_.waitForFrames(sink_.frameCount() + kSomePictures, kComesWithinMs); }

    void selectOther(TrackKind kind) {
        const int number = otherTrack(kind);
        ASSERT_GE(number, 0);
        ASSERT_TRUE(player().selectTrack(kind, number));
        EXPECT_NE(otherTrack(kind), number);
    }

    // To the other sound and back, and to the other video.
    void changeAllOf(const std::string& url) {
        ASSERT_TRUE(playback_->open(url, kComesWithinMs));
        ASSERT_TRUE(player().play());
        ASSERT_TRUE(waitUntilHeard({Sound::First, Sound::Second}));
        ASSERT_TRUE(waitForMorePictures());
        const Sound first = heard();
        const Sound second = first == Sound::First ? Sound::Second : Sound::First;
        for (const Sound sound : {second, first}) {
            selectOther(TRACK_KIND_AUDIO);
            EXPECT_TRUE(waitUntilHeard({sound}));
            EXPECT_TRUE(waitForMorePictures());
        }
        const auto frames = sink_.frames();
        for (size_t i = 1; i < frames.size(); ++i) {
            EXPECT_GT(frames[i].pts, frames[i - 1].pts) << "picture " << i;
        }
        const Event size = playback_->last(Happened::SizeUpdated);
        const int sizes = playback_->count(Happened::SizeUpdated);
        selectOther(TRACK_KIND_VIDEO);
        ASSERT_TRUE(playback_->waitFor(Happened::SizeUpdated, kComesWithinMs, sizes + 1));
        EXPECT_NE(playback_->last(Happened::SizeUpdated).a, size.a);
        EXPECT_TRUE(waitForMorePictures());
        EXPECT_EQ(playback_->count(Happened::Failed), 0);
        EXPECT_EQ(playback_->count(Happened::Completed), 0);
    }

    const std::string recording_ =
        (std::filesystem::temp_directory_path() / ("kelp_live_tracks_" + std::to_string(getpid()) + ".raw")).string();
    NumberSink sink_;
    std::unique_ptr<Playback> playback_;
};

TEST_F(LiveTracks, OfAServerAreHeardAndSeen) {
    RtspServer server({{"tracks", mediaPath("two_tracks.mp4")}});
    player().setOption("preset", "recommended");
    changeAllOf(server.url("tracks"));
    player().stop();
}

TEST_F(LiveTracks, OfATransportStreamInDatagramsAreHeardAndSeen) {
    const int port = freePortPair(SOCK_DGRAM);
    const std::string url = "udp://127.0.0.1:" + std::to_string(port);
    ChildProcess sender({"ffmpeg", "-nostdin", "-v", "fatal", "-re", "-stream_loop", "-1", "-i",
                         mediaPath("two_tracks.ts"), "-map", "0", "-c", "copy", "-f", "mpegts",
                         url + "?pkt_size=1316"});
#ifdef __SANITIZE_THREAD__
    // Without libavformat's own thread: it is cancelled in the midst of a call, which tsan doesn't bear.
    changeAllOf(url + "?fifo_size=0&buffer_size=1000000");
#else
    changeAllOf(url);
#endif
    player().stop();
}

}  // namespace
}  // namespace kelp::test
