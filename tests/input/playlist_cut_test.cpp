#include "input/playlist_cut.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace kelp::test {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;

const std::string kSegments =
    "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-MEDIA-SEQUENCE:5\n#EXT-X-MAP:URI=\"init.mp4\"\n"
    "#EXTINF:1.5,\n0.m4s\n"
    "#EXT-X-KEY:METHOD=AES-128,URI=\"key\"\n#EXT-X-DISCONTINUITY\n#EXTINF:2,title\n1.m4s\n"
    "#EXT-X-DISCONTINUITY\n#EXTINF:1,\n2.m4s\n#EXT-X-ENDLIST\n";

TEST(PlaylistCut, LeavesOutWhatEndsBefore) {
    const std::string head = "#EXT-X-VERSION:7\n#EXT-X-MAP:URI=\"init.mp4\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"key\"\n";
    const std::string last = "#EXT-X-DISCONTINUITY\n#EXTINF:1,\n2.m4s\n#EXT-X-ENDLIST\n";
    const std::string fromSecond =
        "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:6\n" + head + "#EXT-X-DISCONTINUITY\n#EXTINF:2,title\n1.m4s\n" + last;
    EXPECT_EQ(cutPlaylist(kSegments, 3 * kUsPerSecond / 2), fromSecond);
    EXPECT_EQ(cutPlaylist(kSegments, 7 * kUsPerSecond / 2 - 1), fromSecond);
    const std::string fromLast = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:7\n" + head + last;
    EXPECT_EQ(cutPlaylist(kSegments, 7 * kUsPerSecond / 2), fromLast);
    EXPECT_EQ(cutPlaylist(kSegments, 100 * kUsPerSecond), fromLast);
}

TEST(PlaylistCut, HasNothingToLeaveOut) {
    EXPECT_EQ(cutPlaylist(kSegments, 0), std::nullopt);
    EXPECT_EQ(cutPlaylist(kSegments, 3 * kUsPerSecond / 2 - 1), std::nullopt);
    EXPECT_EQ(cutPlaylist("", kUsPerSecond), std::nullopt);
    EXPECT_EQ(cutPlaylist("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8\nb.m3u8\n", kUsPerSecond), std::nullopt);
    EXPECT_EQ(cutPlaylist("#EXTM3U\n#EXTINF:1\na.m4s\n#EXTINF:-1\nb.m4s\n#EXTINF:nan\nc.m4s\n", kUsPerSecond),
              std::nullopt);
}

TEST(PlaylistCut, LeavesAListWhoseBeginningGoesAsItIs) {
    const std::string segments = "#EXTINF:1,\na.ts\n#EXTINF:1,\nb.ts\n";
    EXPECT_EQ(cutPlaylist("#EXTM3U\n" + segments, kUsPerSecond), std::nullopt);
    EXPECT_NE(cutPlaylist("#EXTM3U\n#EXT-X-PLAYLIST-TYPE:EVENT\n" + segments, kUsPerSecond), std::nullopt);
}

// It goes on growing: what has come since stands behind the same segments, under the same numbers, and none is the
// last.
TEST(PlaylistCut, LeavesAListThatGrowsOpen) {
    const std::string head = "#EXT-X-PLAYLIST-TYPE:EVENT\n#EXT-X-TARGETDURATION:2\n#EXT-X-MAP:URI=\"init.mp4\"\n";
    const std::string first = "#EXTINF:2,\n0.m4s\n#EXTINF:2,\n1.m4s\n";
    const std::string second = "#EXT-X-PROGRAM-DATE-TIME:2026-01-01T00:00:04Z\n#EXTINF:2,\n2.m4s\n";
    const std::string third = "#EXTINF:1.5,\n3.m4s\n";
    const std::string list = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:0\n" + head + first + second;
    const std::string fromSecond = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:2\n" + head + second;
    EXPECT_EQ(cutPlaylist(list, 5 * kUsPerSecond), fromSecond);
    EXPECT_EQ(cutPlaylist(list + third, 5 * kUsPerSecond), fromSecond + third);
    EXPECT_EQ(cutPlaylist(list, 100 * kUsPerSecond), fromSecond) << "behind its end, the last one so far";
    EXPECT_EQ(cutPlaylist(list, 2 * kUsPerSecond - 1), std::nullopt);
}

TEST(PlaylistCut, TakesNumbersOfAnySize) {
    const std::string most = "9223372036854775807";
    EXPECT_EQ(cutPlaylist("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:" + most + "\n#EXTINF:1e300,\n#EXT-X-BYTERANGE:" + most +
                              "@" + most + "\na\n#EXTINF:inf,\n#EXT-X-BYTERANGE:1\na\n#EXTINF:-5\nb\n#EXT-X-ENDLIST\n",
                          std::numeric_limits<int64_t>::max()),
              "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:-9223372036854775807\n#EXTINF:-5\nb\n#EXT-X-ENDLIST\n");
}

TEST(PlaylistCut, SaysWhereAPartOfAFileBegins) {
    EXPECT_EQ(cutPlaylist("#EXTM3U\r\n#EXT-X-MAP:URI=\"f\",BYTERANGE=\"10@0\"\r\n"
                          "#EXTINF:1,\r\n#EXT-X-BYTERANGE:100@10\r\nf\r\n"
                          "#EXTINF:1,\r\n#EXT-X-BYTERANGE:50\r\nf\r\n"
                          "#EXTINF:1,\r\n#EXT-X-BYTERANGE:7\r\nf\r\n#EXT-X-ENDLIST",
                          kUsPerSecond),
              "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-MAP:URI=\"f\",BYTERANGE=\"10@0\"\n"
              "#EXTINF:1,\n#EXT-X-BYTERANGE:50@110\nf\n"
              "#EXTINF:1,\n#EXT-X-BYTERANGE:7@160\nf\n#EXT-X-ENDLIST\n");
}

}  // namespace
}  // namespace kelp::test
