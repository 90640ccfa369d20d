// The managed player on real files: requests, callbacks, threads, and the way from hardware to software.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <random>
#include <thread>

#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// What was told with one of these words, in order. Where onStarted stands isn't looked at: what plays may tell of
// itself ahead of it.
std::vector<std::string> toldOf(ManagedPlayback& playback, const std::vector<std::string>& words) {
    playback.waitForWorker();
    std::vector<std::string> all;
    for (const auto& text : playback.told()) {
        if (std::find(words.begin(), words.end(), text.substr(0, text.find(' '))) != words.end()) {
            all.push_back(text);
        }
    }
    return all;
}

TEST(Managed, StartsAndPausesWhatWasAskedForBeforeTheSourceIsReady) {
    struct Case {
        std::vector<std::function<void(TarnPlayer&)>> requests;
        int state;
    };
    const auto start = [](TarnPlayer& p) { EXPECT_TRUE(p.start()); };
    const auto pause = [](TarnPlayer& p) { EXPECT_TRUE(p.pause()); };
    const auto resume = [](TarnPlayer& p) { EXPECT_TRUE(p.resume()); };
    const std::vector<Case> cases = {
        {{}, PLAYER_STATE_PREPARED},
        {{pause}, PLAYER_STATE_PREPARED},
        {{start}, PLAYER_STATE_STARTED},
        {{start, pause}, PLAYER_STATE_PAUSED},
        {{pause, start}, PLAYER_STATE_PAUSED},
        {{start, pause, resume}, PLAYER_STATE_STARTED},
        {{pause, resume, start}, PLAYER_STATE_STARTED},
        {{pause, start, resume}, PLAYER_STATE_STARTED},
        {{start, resume, pause}, PLAYER_STATE_PAUSED},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(&one - cases.data());
        ManagedPlayback playback;
        // The opening waits: the worker is the one that would tell of it.
        std::atomic<bool> asked{false};
        playback.player().runInWorker([&] {
            while (!asked) {
                pauseFor(1);
            }
        });
        ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
        for (const auto& request : one.requests) {
            request(playback.player());
        }
        asked = true;
        ASSERT_TRUE(playback.waitFor("prepared"));
        if (one.state == PLAYER_STATE_PREPARED) {
            playback.waitForWorker();  // behind the event itself
            EXPECT_EQ(playback.count("started"), 0);
        } else {
            ASSERT_TRUE(playback.waitFor("started"));
            EXPECT_THAT(toldOf(playback, {"size", "prepared", "failed"}),
                        ElementsAre("size 320 180 0", "prepared 1 1"));
            EXPECT_EQ(playback.count("started"), 1);
        }
        EXPECT_EQ(playback.state(), one.state);
        if (one.state == PLAYER_STATE_STARTED) {
            EXPECT_TRUE(playback.sink().waitFor(5, 60000));
        }
        EXPECT_TRUE(playback.player().stop());
    }
}

TEST(Managed, PlaysAgainAfterAFailureWithAndWithoutAStop) {
    ManagedPlayback playback;
    ASSERT_TRUE(playback.open(mediaPath("text.mp4")));
    ASSERT_TRUE(playback.waitFor("failed 1"));
    EXPECT_EQ(playback.state(), PLAYER_STATE_ERROR);
    // One way keeps the source, the other takes another one.
    EXPECT_TRUE(playback.player().stop());
    EXPECT_TRUE(playback.player().prepareAsync());
    ASSERT_TRUE(playback.waitFor("failed 1", 2));
    EXPECT_TRUE(playback.player().reset());
    ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
    EXPECT_TRUE(playback.player().start());
    ASSERT_TRUE(playback.waitFor("picture"));
    // In mid-playback likewise.
    EXPECT_TRUE(playback.player().reset());
    ASSERT_TRUE(playback.open(mediaPath("short.mp4")));
    EXPECT_TRUE(playback.player().start());
    ASSERT_TRUE(playback.waitFor("completed"));
    EXPECT_EQ(playback.count("picture"), 2);
}

// Every callback may end and begin anything.
TEST(Managed, TakesCallsFromWithinEveryCallback) {
    for (const std::string within :
         {"size", "prepared", "started", "picture", "sound", "duration", "completed", "failed"}) {
        SCOPED_TRACE(within);
        ManagedPlayback playback;
        TarnPlayer& player = playback.player();
        std::atomic<bool> done{false};
        playback.inCallback = [&](const std::string& word) {
            if (word != within || done.exchange(true)) {
                return;
            }
            player.getCurrentTime();
            player.getDuration();
            player.getPlayDetailInfo(INFO_WIDTH);
            player.setVolume(0.5F);
            player.setSpeed(1.0F);
            player.start();
            player.pause();
            player.resume();
            player.seek(100);
            player.removeTimer(player.addTimer(1000, true, [] {}));
            player.stop();
            player.reset();
            EXPECT_TRUE(playback.open(mediaPath("short.mp4")));
            EXPECT_TRUE(player.start());
        };
        ASSERT_TRUE(playback.open(mediaPath(within == "failed" ? "text.mp4" : "short.mp4")));
        player.start();
        // The second one plays to its end.
        ASSERT_TRUE(playback.waitFor("completed", within == "completed" ? 2 : 1))
            << testing::PrintToString(playback.told());
        EXPECT_TRUE(done);
    }
}

TEST(Managed, TakesCallsFromFourThreads) {
    ManagedPlayback playback;
    TarnPlayer& player = playback.player();
    player.setOption("retry_when_failed", "5");
    ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
    player.start();
    std::vector<std::thread> threads;
    for (unsigned int number = 1; number <= 4; ++number) {
        threads.emplace_back([&, number] {
            std::mt19937 generator{number};
            for (int i = 0; i < 120; ++i) {
                switch (generator() % 12) {
                    case 0:
                        player.stop();
                        break;
                    case 1:
                        player.pause();
                        break;
                    case 2:
                        player.resume();
                        break;
                    case 3:
                        player.seek(static_cast<int>(generator() % 3000));
                        break;
                    case 4:
                        player.getCurrentTime();
                        break;
                    case 5:
                        player.getDuration();
                        break;
                    case 6:
                        player.setVolume(0.5F);
                        break;
                    case 7:
                        player.setSpeed(1.5F);
                        break;
                    case 8:
                        player.getPlayDetailInfo(INFO_DURATION);
                        break;
                    case 9:
                        playback.setSource(mediaPath("small.mp4"));
                        break;
                    default:
                        player.prepareAsync();
                        player.start();
                        break;
                }
                if (generator() % 3 == 0) {
                    pauseFor(static_cast<int>(generator() % 12));
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // What was on its way may still move the state.
    player.stop();
    playback.waitForWorker();
    player.stop();
    player.reset();
    player.resume();
    const int completed = playback.count("completed");
    ASSERT_TRUE(playback.open(mediaPath("short.mp4")));
    EXPECT_TRUE(player.start());
    EXPECT_TRUE(playback.waitFor("completed", completed + 1));
}

TEST(Managed, HearsNothingAfterDestroy) {
    const std::vector<std::function<void(ManagedPlayback&)>> ways = {
        [](auto& p) { p.setSource(mediaPath("small.mp4")); },
        [](auto& p) { p.player().prepareAsync(); },
        [](auto& p) { p.player().start(); },
        [](auto& p) { p.player().pause(); },
        [](auto& p) { p.player().resume(); },
        [](auto& p) { p.player().seek(1000); },
        [](auto& p) { p.player().reset(); },
    };
    for (size_t length = 0; length <= ways.size(); ++length) {
        for (const int restMs : {0, 5, 60}) {
            SCOPED_TRACE("after " + std::to_string(length) + " operations, each followed by " + std::to_string(restMs) +
                         " ms");
            ManagedPlayback playback;
            for (size_t i = 0; i < length; ++i) {
                ways[i](playback);
                pauseFor(restMs);
            }
            playback.destroy();
            const int frames = playback.sink().count();
            pauseFor(60);  // longer than one picture lasts
            EXPECT_EQ(playback.toldLate(), 0);
            EXPECT_EQ(playback.sink().count(), frames);
        }
    }
}

struct HardwareCase {
    const char* file;
    AVCodecID codec;
    const char* decoder;               // of the hardware, by its name
    const char* software;              // the library's own decoder
    std::vector<const char*> devices;  // by their names
};

class ManagedHardware : public testing::TestWithParam<HardwareCase> {};

// What the library says of a row by itself.
bool hardwareDecoderOpens(const AVCodec* decoder) {
    AVCodecContext* context = avcodec_alloc_context3(decoder);
    const bool opens = avcodec_open2(context, decoder, nullptr) >= 0;
    avcodec_free_context(&context);
    return opens;
}

bool deviceOpens(AVHWDeviceType type) {
    AVBufferRef* device = nullptr;
    const bool opens = av_hwdevice_ctx_create(&device, type, nullptr, nullptr, 0) >= 0;
    av_buffer_unref(&device);
    return opens;
}

bool decoderKnows(const AVCodec* decoder, AVHWDeviceType type) {
    for (int i = 0; const AVCodecHWConfig* config = avcodec_get_hw_config(decoder, i); ++i) {
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && config->device_type == type) {
            return true;
        }
    }
    return false;
}

// Without the hardware every row is tried and refused, with its lines; where there is some, the test says so and stops
// looking at the lines from there on. The picture comes in any case.
TEST_P(ManagedHardware, IsTriedRowByRowAndGivesWayToSoftware) {
    const HardwareCase& hardware = GetParam();
    for (const auto mode : {HW_DECODE_NONE, HW_DECODE_DECODER, HW_DECODE_ACCEL, HW_DECODE_ALL}) {
        SCOPED_TRACE(mode);
        const std::string number = std::to_string(hardware.codec);
        std::vector<std::string> expected;
        bool refused = true;
        if (mode & HW_DECODE_DECODER) {
            const std::string name = hardware.decoder;
            expected.push_back("open, getHWDecoderInfo, info.id:" + number + ", name:" + name);
            if (const AVCodec* decoder = avcodec_find_decoder_by_name(hardware.decoder)) {
                expected.push_back("open, found video codec by name:" + name + ": (" + number + ", " + name + ", " +
                                   decoder->long_name + ")");
                expected.push_back("open, try to open hw codec, ffPixFmt:");
                refused = !hardwareDecoderOpens(decoder);
            } else {
                expected.push_back("open, could not find video codec, name:" + name);
            }
        }
        if (refused) {
            expected.push_back("open, have no hw decoder for " + number);
            expected.push_back("open, use sw codec...");
            for (const char* device : hardware.devices) {
                if (!(mode & HW_DECODE_ACCEL)) {
                    break;
                }
                expected.push_back(std::string("open, try hw accel, name:") + device + ", desc:");
                const AVHWDeviceType type = av_hwdevice_find_type_by_name(device);
                if (type == AV_HWDEVICE_TYPE_NONE) {
                    expected.push_back(std::string("open, Device type ") + device + " is not supported.");
                } else if (!decoderKnows(avcodec_find_decoder(hardware.codec), type)) {
                    expected.push_back(std::string("Decoder ") + hardware.software + " does not support device type " +
                                       device + ".");
                    expected.push_back("open, hwPixFmt_:-1");
                    expected.push_back("can't found support pix");
                } else {
                    expected.push_back("open, hwPixFmt_:");
                    refused = !deviceOpens(type);
                    if (!refused) {
                        break;
                    }
                    expected.push_back("Failed to create specified HW device.");
                    expected.push_back("can't create device context");
                }
            }
            if (refused) {
                expected.push_back("open, have no hw accel for " + number);
                expected.push_back("open succeed, codecType:");
            }
        }

        ManagedPlayback playback;
        LogCapture log;  // behind the first player of the process, which sets the level
        playback.player().enableHwDecoder(true, mode);
        ASSERT_TRUE(playback.open(mediaPath(hardware.file)));
        EXPECT_TRUE(playback.player().start());
        EXPECT_TRUE(playback.sink().waitFor(5, 60000));
        EXPECT_TRUE(playback.player().stop());
        EXPECT_EQ(playback.count("failed"), 0);
        if (!refused) {
            std::printf("this machine has hardware for %s\n", hardware.file);
        }
        // In this order; the names of the device types that there are stand between them.
        const auto lines = log.lines();
        auto from = lines.begin();
        for (const auto& line : expected) {
            const auto at = std::find_if(from, lines.end(), [&](const std::string& text) {
                return text.starts_with("[FFVideoDecoder]: " + line);
            });
            ASSERT_NE(at, lines.end()) << line << "\n" << testing::PrintToString(lines);
            from = at + 1;
        }
        if (!(mode & HW_DECODE_DECODER)) {
            EXPECT_FALSE(log.has("getHWDecoderInfo"));
        }
        if (!(mode & HW_DECODE_ACCEL)) {
            EXPECT_FALSE(log.has("try hw accel"));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Of, ManagedHardware,
    testing::Values(
        HardwareCase{"small.mp4", AV_CODEC_ID_H264, "h264_cuvid", "h264", {"cuda", "dxva2", "d3d11va", "vaapi"}},
        HardwareCase{"hevc.ts", AV_CODEC_ID_HEVC, "hevc_cuvid", "hevc", {"cuda", "dxva2", "d3d11va", "vaapi"}},
        HardwareCase{"mjpeg_alaw.mov", AV_CODEC_ID_MJPEG, "mjpeg_cuvid", "mjpeg", {}}),
    [](const auto& hardware) { return std::string(hardware.param.software); });

TEST(ManagedFallBack, RestartsOnceInSoftwareAndThenTellsAFailingDecoder) {
    ManagedPlayback playback;
    LogCapture log;
    ASSERT_TRUE(playback.open(mediaPath("broken.avi")));
    EXPECT_TRUE(playback.player().start());
    ASSERT_TRUE(playback.waitFor("failed"));
    EXPECT_THAT(toldOf(playback, {"prepared", "failed"}), ElementsAre("prepared 1 0", "prepared 1 0", "failed 2"));
    EXPECT_EQ(playback.count("started"), 2);
    EXPECT_EQ(playback.count("picture"), 2);
    EXPECT_EQ(log.count("[FFVideoDecoder]: notify onVideoDecodeFailed\n"), 2);
    EXPECT_EQ(log.count("[TarnPlayer]: onFailed, errorType:2, extraData:1, current state:16\n"), 1);
    EXPECT_EQ(log.count("[TarnPlayer]: restartWithOldState, state:16\n"), 1);
    EXPECT_EQ(log.count("[TarnPlayer]: onFailed, errorType:2, extraData:0, current state:16\n"), 1);
    // The second one didn't ask for hardware at all.
    EXPECT_EQ(log.count("open, have no hw accel for 27\n"), 1);
    EXPECT_EQ(log.count("open, use sw codec...\n"), 2);
    EXPECT_TRUE(playback.player().stop());
    EXPECT_TRUE(playback.player().reset());

    // For good, until the host says otherwise.
    for (const bool enabled : {false, true}) {
        log.clear();
        if (enabled) {
            playback.player().enableHwDecoder(true, HW_DECODE_ALL);
        }
        const int pictures = playback.count("picture");
        ASSERT_TRUE(playback.open(mediaPath("short.mp4")));
        EXPECT_TRUE(playback.player().start());
        ASSERT_TRUE(playback.waitFor("picture", pictures + 1));
        EXPECT_EQ(log.has("try hw accel"), enabled);
        EXPECT_TRUE(playback.player().stop());
        EXPECT_TRUE(playback.player().reset());
    }
}

TEST(ManagedFallBack, TellsTheFailureAtOnceWithHardwareOff) {
    ManagedPlayback playback;
    playback.player().enableHwDecoder(false, HW_DECODE_NONE);
    ASSERT_TRUE(playback.open(mediaPath("broken.avi")));
    EXPECT_TRUE(playback.player().start());
    ASSERT_TRUE(playback.waitFor("failed"));
    EXPECT_THAT(toldOf(playback, {"prepared", "failed"}), ElementsAre("prepared 1 0", "failed 2"));
    EXPECT_EQ(playback.count("started"), 1);
    EXPECT_EQ(playback.count("picture"), 1);
    EXPECT_EQ(playback.state(), PLAYER_STATE_ERROR);
}

}  // namespace
}  // namespace kelp::test
