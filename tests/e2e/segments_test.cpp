// Films that a server has in segments, with a playlist of them: HLS and DASH.

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>

#include "e2e/http_server.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/stalls.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

constexpr int kPictureMs = 40;
constexpr int kSegmentMs = 1000;

struct Film {
    const char* playlist;
    const char* second;  // the segment of its pictures
    bool asksAgain;      // of a segment whose connection breaks the rest is asked for
};

std::ostream& operator<<(std::ostream& out, const Film& film) {
    return out << film.playlist;
}

class Segments : public testing::TestWithParam<Film> {
protected:
    Segments() {
        player().enableHwDecoder(false, HW_DECODE_NONE);
        player().setOption("preset", "recommended");
        player().setStallObserver(&stalls_);
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
    }

    KelpPlayer& player() { return playback_.player(); }
    bool play() { return playback_.open(server_.url()) && player().play(); }
    bool isPlayedToItsEnd() {
        return playback_.waitFor(Happened::Completed, Stalls::kAtMostMs) && playback_.count(Happened::Failed) == 0 &&
               stalls_.arePaired();
    }
    // How many pictures were played, those included that came late on a machine that is busy.
    int played() {
        const VideoStatistics video = player().getStatistics().video;
        return static_cast<int>(video.shown + video.late);
    }
    bool waitForPlayed(int count) {
        // They are counted behind the sink's picture.
        for (int waitedMs = 0; played() != count && waitedMs < 1000; waitedMs += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return played() == count;
    }
    static std::string name() { return GetParam().playlist; }

    const MediaFile& film_ = mediaFile(name());
    HttpServer server_{mediaPath(name())};
    Stalls stalls_;
    RecordingSink sink_{RecordingSink::Keep::Nothing};
    Playback playback_;
};

TEST_P(Segments, ArePlayedToTheEndWithEveryPicture) {
    ASSERT_TRUE(play());
    EXPECT_EQ(playback_.first(Happened::Prepared), (Event{Happened::Prepared, true, true}));
    EXPECT_TRUE(isPlayedToItsEnd());
    EXPECT_TRUE(waitForPlayed(film_.frames)) << played();
    EXPECT_EQ(playback_.count(Happened::Completed), 1);
}

class SoughtSegments : public Segments {};

TEST_P(SoughtSegments, ShowThePictureThatWasAskedFor) {
    ASSERT_TRUE(play());
    ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs));
    int seeks = 1;
    for (const int target : {2480, 200, 1000}) {
        ASSERT_TRUE(player().seek(target));
        ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs, ++seeks)) << target;
        const int picture = playback_.last(Happened::FirstVideoFrame).a;
        EXPECT_TRUE(picture <= target && picture > target - kPictureMs) << picture << " for " << target;
    }
    EXPECT_TRUE(isPlayedToItsEnd());
}

TEST_P(SoughtSegments, EndPlaybackWhereTheServerHasThemNoMore) {
    ASSERT_TRUE(play());
    ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs));
    server_.setMissing(name());
    ASSERT_TRUE(player().seek(2480));
    // Some are opened anew for it, others have their playlist.
    const auto isOver = [&] { return playback_.count(Happened::Failed) + playback_.count(Happened::Completed) > 0; };
    for (int waitedMs = 0; !isOver() && waitedMs < Stalls::kAtMostMs; waitedMs += 10) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(isOver());
    EXPECT_TRUE(stalls_.arePaired());
}

// Their playlist still grows, and says by its kind that its beginning stays.
TEST(GrowingSegments, AreSoughtAndPlayedToTheEndThatComes) {
    const TempFolder folder;
    const std::string name = "hls_fmp4.m3u8";
    std::string list;
    for (const auto& file : std::filesystem::directory_iterator(std::filesystem::path(mediaPath(name)).parent_path())) {
        if (const std::string part = file.path().filename(); part.starts_with("hls_fmp4_")) {
            std::filesystem::create_symlink(file.path(), folder.path(part));
        }
    }
    std::ifstream in(mediaPath(name));
    for (std::string line; std::getline(in, line);) {
        list += line.starts_with("#EXT-X-PLAYLIST-TYPE") ? "#EXT-X-PLAYLIST-TYPE:EVENT\n" : line + "\n";
    }
    // In one step: the server is asked for it again and again.
    const auto publish = [&](const std::string& text) {
        std::ofstream(folder.path("next")) << text;
        std::filesystem::rename(folder.path("next"), folder.path(name));
    };
    publish(list.substr(0, list.find("#EXT-X-ENDLIST")));
    HttpServer server(folder.path(name));
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().enableHwDecoder(false, HW_DECODE_NONE);
    playback.player().setOption("preset", "recommended");
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url()));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(playback.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs));
    int seeks = 1;
    for (const int target : {2480, 200, 1000}) {
        ASSERT_TRUE(playback.player().seek(target));
        ASSERT_TRUE(playback.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs, ++seeks)) << target;
        const int picture = playback.last(Happened::FirstVideoFrame).a;
        EXPECT_TRUE(picture <= target && picture > target - kPictureMs) << picture << " for " << target;
    }
    publish(list);
    EXPECT_TRUE(playback.waitFor(Happened::Completed, Stalls::kAtMostMs));
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

TEST_P(Segments, StallAndGoOnWhereTheServerIsSlow) {
    server_.setRate(std::filesystem::file_size(mediaPath("small.mp4")) * 1000 / film_.durationMs / 2);
    ASSERT_TRUE(play());
    EXPECT_TRUE(isPlayedToItsEnd());
    EXPECT_GT(stalls_.now().first, 0U);
    EXPECT_TRUE(waitForPlayed(film_.frames)) << played();
}

TEST_P(Segments, AreLeftOutWhereTheyAreMissing) {
    server_.setMissing(GetParam().second);
    ASSERT_TRUE(play());
    EXPECT_TRUE(isPlayedToItsEnd());
    EXPECT_TRUE(waitForPlayed(film_.frames - kSegmentMs / kPictureMs)) << played();
}

TEST_P(Segments, GoOnBehindAConnectionThatBreaks) {
    server_.setFaulty(GetParam().second);
    server_.dropAt(static_cast<int64_t>(std::filesystem::file_size(mediaPath(GetParam().second)) / 2));
    ASSERT_TRUE(play());
    EXPECT_TRUE(isPlayedToItsEnd());
    if (GetParam().asksAgain) {
        EXPECT_TRUE(waitForPlayed(film_.frames)) << played();
    } else {
        EXPECT_GE(played(), film_.frames - kSegmentMs / kPictureMs);
    }
}

TEST_P(Segments, ThatDoNotComeHoldNeitherASeekNorAStop) {
    server_.setFaulty(GetParam().second);
    server_.holdAt(0);
    ASSERT_TRUE(play());
    ASSERT_TRUE(stalls_.waitFor("stalled"));
    ASSERT_TRUE(player().seek(400));
    ASSERT_TRUE(playback_.waitFor(Happened::FirstVideoFrame, Stalls::kAtMostMs, 2));
    const int picture = playback_.last(Happened::FirstVideoFrame).a;
    EXPECT_TRUE(picture <= 400 && picture > 400 - kPictureMs) << picture;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(player().stop());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_TRUE(stalls_.arePaired());
}

const Film kFilms[] = {{"hls_ts.m3u8", "hls_ts_1.ts", true},
                       {"hls_fmp4.m3u8", "hls_fmp4_1.m4s", true},
                       {"dash.mpd", "dash_0_2.m4s", false}};

std::string nameOf(const testing::TestParamInfo<Film>& film) {
    const std::string name = film.param.playlist;
    return name.substr(0, name.find('.'));
}

INSTANTIATE_TEST_SUITE_P(OfAServer, Segments, testing::ValuesIn(kFilms), nameOf);
INSTANTIATE_TEST_SUITE_P(OfAServer, SoughtSegments, testing::ValuesIn(kFilms), nameOf);
INSTANTIATE_TEST_SUITE_P(OfAServerWithThemApart, SoughtSegments, testing::Values(Film{"hls_apart.m3u8", "", true}),
                         nameOf);

}  // namespace
}  // namespace kelp::test
