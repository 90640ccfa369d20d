// What a playlist, a session description or a server can make a player open, with the libraries' own rules in force.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "input/answering_server.h"
#include "input/input_files.h"
#include "input/stream_parser_fixture.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

std::string bytesOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Playlist {
    const char* name;
    const char* type;
    std::string (*text)(const std::string& target);
};

void PrintTo(const Playlist& playlist, std::ostream* out) {
    *out << playlist.name;
}

const Playlist kPlaylists[] = {
    {"list.m3u8", "application/vnd.apple.mpegurl",
     [](const std::string& target) {
         return "#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\n" + target + "\n#EXT-X-ENDLIST\n";
     }},
    {"list.mpd", "application/dash+xml",
     [](const std::string& target) {
         return "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
                "mediaPresentationDuration=\"PT9S\" profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\"><Period>"
                "<AdaptationSet mimeType=\"video/mp2t\"><Representation id=\"1\" bandwidth=\"1000\"><BaseURL>" +
                target + "</BaseURL></Representation></AdaptationSet></Period></MPD>\n";
     }},
    {"list.ffconcat", "text/plain",
     [](const std::string& target) { return "ffconcat version 1.0\nfile '" + target + "'\n"; }},
};

class HostileSources : public StreamParserTest, public testing::WithParamInterface<Playlist> {
protected:
    HostileSources() { std::filesystem::copy_file(inputFile("mp3.ts"), folder.path("film.ts")); }

    std::string playlistOf(const std::string& target) {
        std::ofstream(folder.path(GetParam().name)) << GetParam().text(target);
        return folder.path(GetParam().name);
    }

    bool opens(const std::string& path) {
        parser->close();
        return parser->open(path, 0);
    }

    TempFolder folder;
    // Whatever is asked for: a film.
    AnsweringServer films{[](const std::string&) { return httpFile("video/mp2t", bytesOf(inputFile("mp3.ts"))); }};
};

TEST_P(HostileSources, OpenWhatLiesBesideThem) {
    EXPECT_TRUE(opens(playlistOf("film.ts")));
}

TEST_P(HostileSources, OfThisMachineOpenNothingOnTheNetwork) {
    EXPECT_FALSE(opens(playlistOf("http://" + films.host() + "/film.ts")));
    EXPECT_FALSE(opens(playlistOf("tcp://" + films.host() + "?film.ts")));
    EXPECT_EQ(films.requests(), 0);
}

TEST_P(HostileSources, OfTheNetworkOpenNoFile) {
    for (const std::string& target :
         {"file://" + folder.path("film.ts"), "file:" + folder.path("film.ts"), folder.path("film.ts"),
          "concat:" + folder.path("film.ts"), "subfile,,start,0,end,0,,:" + folder.path("film.ts")}) {
        AnsweringServer lists([&](const std::string& request) {
            return request.find(GetParam().name) != std::string::npos
                       ? httpFile(GetParam().type, GetParam().text(target))
                       : "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        });
        EXPECT_FALSE(opens("http://" + lists.host() + "/" + GetParam().name)) << target;
        EXPECT_GE(lists.requests(), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Playlists, HostileSources, testing::ValuesIn(kPlaylists));

class HostileServers : public HostileSources {};

TEST_P(HostileServers, LeadToOtherServersOfTheirKindAlone) {
    AnsweringServer elsewhere([&](const std::string&) { return httpRedirect("http://" + films.host() + "/film.ts"); });
    EXPECT_TRUE(opens("http://" + elsewhere.host() + "/film.ts"));
    EXPECT_GE(films.requests(), 1);
    for (const std::string& target : {"file://" + folder.path("film.ts"), "file:" + folder.path("film.ts"),
                                      "concat:" + folder.path("film.ts"), std::string("pipe:0")}) {
        AnsweringServer astray([&](const std::string&) { return httpRedirect(target); });
        EXPECT_FALSE(opens("http://" + astray.host() + "/film.ts")) << target;
    }
}

TEST_P(HostileServers, LeadNoRtspSourceToAFileOrAnotherProtocol) {
    const int before = films.requests();
    for (const std::string& target :
         {"file://" + folder.path("film.ts"), folder.path("film.ts"), "http://" + films.host() + "/film.ts"}) {
        AnsweringServer astray(
            [&](const std::string&) { return "RTSP/1.0 302 Found\r\nCSeq: 1\r\nLocation: " + target + "\r\n\r\n"; });
        parser->setOption("timeout", "300000");
        EXPECT_FALSE(opens("rtsp://" + astray.host() + "/film")) << target;
    }
    EXPECT_FALSE(parser->getStreamInfo()->has_audio);
    EXPECT_LE(films.requests() - before, 1) << "it may be asked, in RTSP";
}

// A description under another name is no permission to listen.
TEST_P(HostileServers, AFileThatIsASessionDescriptionOpensNoSocket) {
    std::ofstream(folder.path("film.mp4")) << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=film\nc=IN IP4 127.0.0.1\nt=0 0\n"
                                              "m=audio 15004 RTP/AVP 14\n";
    EXPECT_FALSE(opens(folder.path("film.mp4")));
}

TEST_P(HostileServers, HaveTheHostsWordOnProtocolsAboveAll) {
    parser->setOption("protocol_whitelist", "file,http,tcp,crypto,data");
    EXPECT_TRUE(opens(playlistOf("http://" + films.host() + "/film.ts")));
    parser->setOption("protocol_whitelist", "file");
    EXPECT_FALSE(opens("http://" + films.host() + "/film.ts"));
}

INSTANTIATE_TEST_SUITE_P(Http, HostileServers, testing::Values(kPlaylists[0]));

}  // namespace
}  // namespace kelp::test
