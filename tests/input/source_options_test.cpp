#include "input/source_options.h"

#include <gmock/gmock.h>

namespace kelp {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

OptionMap added(const std::string& path) {
    OptionMap options;
    addSourceOptions(options, path);
    return options;
}

const auto kNoBuffer = Pair("fflags", "nobuffer");
const auto kWhitelist = Pair("protocol_whitelist", "file,udp,rtp");

TEST(SourceOptions, HaveFiveDefaults) {
    OptionMap options;
    setDefaultOptions(options);
    EXPECT_THAT(options,
                ElementsAre(Pair("buffer_size", "-1"), Pair("max_delay", "1000000"), Pair("reorder_queue_size", "1200"),
                            Pair("rtsp_transport", "tcp"), Pair("stimeout", "500000")));
}

TEST(SourceOptions, DefaultsReplaceEarlierValuesAndKeepOtherKeys) {
    OptionMap options{{"rtsp_transport", "udp"}, {"user_agent", "kelp"}};
    setDefaultOptions(options);
    EXPECT_EQ(options["rtsp_transport"], "tcp");
    EXPECT_EQ(options["user_agent"], "kelp");
    EXPECT_EQ(options.size(), 6U);
}

TEST(SourceOptions, AddNothingForAFile) {
    EXPECT_THAT(added("/videos/film.mp4"), IsEmpty());
    EXPECT_THAT(added("http://host/film.mp4"), IsEmpty());
    EXPECT_THAT(added("RTSP://host/film"), IsEmpty());
    EXPECT_THAT(added("x rtsp://host/film"), IsEmpty());
    EXPECT_THAT(added("rtsp:/"), IsEmpty());
}

TEST(SourceOptions, AddNothingForAPathThatIsTooShortForSdp) {
    for (const char* path : {"", "s", "sd", "sdp", ".sd"}) {
        EXPECT_THAT(added(path), IsEmpty()) << path;
    }
    EXPECT_THAT(added(".sdp"), ElementsAre(kNoBuffer, kWhitelist));
}

TEST(SourceOptions, TurnBufferingOffForRtsp) {
    EXPECT_THAT(added("rtsp://host/film"), ElementsAre(kNoBuffer));
    EXPECT_THAT(added("rtsp://"), ElementsAre(kNoBuffer));
}

TEST(SourceOptions, FindSdpAnywhereInThePath) {
    EXPECT_THAT(added("/tmp/camera.sdp"), ElementsAre(kNoBuffer, kWhitelist));
    EXPECT_THAT(added("/tmp/my.sdp.files/film.mp4"), ElementsAre(kNoBuffer, kWhitelist));
    EXPECT_THAT(added("rtsp://host/x.sdp"), ElementsAre(kNoBuffer, kWhitelist));
    EXPECT_THAT(added("/tmp/camera.SDP"), IsEmpty());
}

OptionMap own(const std::string& path, bool startsAtOnce, OptionMap options = {}) {
    addOwnOptions(options, path, startsAtOnce);
    return options;
}

TEST(SourceOptions, LetALiveSourceStartAtOnceWithWhatWasReadToLearnIt) {
    const auto unwatched = Pair("fpsprobesize", "0");
    EXPECT_THAT(own("rtsp://host/film", true), ElementsAre(unwatched));
    EXPECT_THAT(own("/tmp/camera.sdp", true), ElementsAre(unwatched, kWhitelist));
    EXPECT_THAT(own("/videos/film.mp4", true), IsEmpty());
    const OptionMap hosts{{"fflags", "nobuffer"}, {"fpsprobesize", "20"}};
    EXPECT_EQ(own("rtsp://host/film", true, hosts), hosts);
}

TEST(SourceOptions, AreThoseOfTheSourceItself) {
    for (const char* path : {"/tmp/my.sdp.files/film.mp4", "http://host/film.mp4?from=camera.sdp",
                             "http://host/film.mp4#/camera.sdp", "http://host/cameras.sdp/film.mp4", "/tmp/x.sdp/"}) {
        EXPECT_THAT(own(path, true), IsEmpty()) << path;
        EXPECT_THAT(own(path, false), IsEmpty()) << path;
    }
    for (const char* path : {"camera.sdp", "/tmp/a?b/camera.sdp", "/tmp/camera.sdp.old", "file:///tmp/camera.sdp"}) {
        EXPECT_THAT(own(path, false), ElementsAre(kNoBuffer, kWhitelist)) << path;
    }
    // The list of an SDP file bars TCP.
    for (const char* path : {"rtsp://host/camera.sdp", "http://host/camera.sdp?user=1", "https://host/camera.sdp"}) {
        EXPECT_THAT(own(path, false), ElementsAre(kNoBuffer)) << path;
    }
    EXPECT_THAT(own("/tmp/camera.sdp", false, {{"protocol_whitelist", "file"}}),
                ElementsAre(kNoBuffer, Pair("protocol_whitelist", "file")));
}

TEST(SourceOptions, LetAnRtspServerThatRefusesTcpBeAskedForUdp) {
    OptionMap options;
    setDefaultOptions(options);
    addRtspFallback(options);
    EXPECT_EQ(options["rtsp_transport"], "tcp+udp");
    EXPECT_EQ(options["rtsp_flags"], "+prefer_tcp");
    for (const char* own : {"udp", "http", "udp+tcp"}) {
        OptionMap hosts{{"rtsp_transport", own}, {"rtsp_flags", "filter_src"}};
        const OptionMap before = hosts;
        addRtspFallback(hosts);
        EXPECT_EQ(hosts, before);
    }
    OptionMap flags{{"rtsp_transport", "tcp"}, {"rtsp_flags", "filter_src"}};
    addRtspFallback(flags);
    EXPECT_EQ(flags["rtsp_flags"], "filter_src+prefer_tcp");
}

TEST(SourceOptions, TellWhatIsReadOverANetworkAtItsOwnPace) {
    for (const char* path : {"http://host/film.mp4", "https://host/", "ftp://host/film.mp4", "tcp://host:1", "mmsh://h",
                             "rtmp://host/app", "rtmpte://host/app", "cache:http://host/film.mp4",
                             "crypto+https://host/film.ts", "subfile,,start,1,end,2,,:http://host/film.mp4"}) {
        EXPECT_TRUE(isRemote(path)) << path;
    }
    for (const char* path : {"", "film.mp4", "http:film", "/http/film.mp4", "file:///film.mp4", "rtsp://host/film",
                             "udp://239.0.0.1:1", "rtp://host:1", "srt://host:1", "pipe:0", "://", "cache:film"}) {
        EXPECT_FALSE(isRemote(path)) << path;
    }
}

TEST(SourceOptions, HaveAServerOfHttpBeAskedAgain) {
    for (const char* path : {"http://host/film.mp4", "https://host/film.mp4"}) {
        OptionMap options;
        addReconnect(options, path);
        EXPECT_THAT(options, ElementsAre(Pair("reconnect", "1"), Pair("reconnect_delay_max", "10")));
    }
    OptionMap others;
    addReconnect(others, "film.mp4");
    addReconnect(others, "ftp://host/film.mp4");
    EXPECT_THAT(others, IsEmpty());
    OptionMap hosts{{"reconnect", "0"}, {"reconnect_delay_max", "60"}};
    addReconnect(hosts, "http://host/film.mp4");
    EXPECT_THAT(hosts, ElementsAre(Pair("reconnect", "0"), Pair("reconnect_delay_max", "60")));
}

TEST(SourceOptions, LeaveAValueThatIsSet) {
    OptionMap options{{"fflags", "genpts"}, {"protocol_whitelist", "file"}};
    addSourceOptions(options, "/tmp/camera.sdp");
    EXPECT_THAT(options, ElementsAre(Pair("fflags", "genpts"), Pair("protocol_whitelist", "file")));
}

}  // namespace
}  // namespace kelp
