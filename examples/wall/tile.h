#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"
#include "settings.h"

// One film of the wall: a player, and the picture that it shows last.
//
// Pictures come on the player's video thread, events on its worker thread; the program's loop takes and asks.
class Tile final : private kelp::TarnPlayerObserver, private kelp::ExternFrameSink {
public:
    // A planar 4:2:0 picture with packed rows.
    struct Picture {
        int width = 0;
        int height = 0;
        std::array<std::vector<uint8_t>, 3> planes;
    };

    // Plays `file` on `clock` as soon as it is open, with these options. `withSound`: whether it is heard.
    // `keepPictures`: whether somebody will take them.
    Tile(const std::string& file, const Settings& settings, kelp::TarnSyncClock* clock, bool withSound,
         bool keepPictures);
    ~Tile();
    Tile(const Tile&) = delete;
    Tile& operator=(const Tile&) = delete;

    kelp::TarnPlayer& player() { return *player_; }
    const std::string& file() const { return file_; }

    bool hasBegun() const { return begun_; }  // there is something to be seen or heard, or it failed
    bool hasFailed() const { return failed_; }
    bool hasEnded() const { return ended_ || failed_; }
    int pictures() const { return pictures_; }
    bool hasPicture() const { return pictures_ > 0; }
    int64_t shownMs() const { return shownMs_; }  // the time of the picture

    void setVolume(float volume);
    void seek(int64_t ms);

    // Puts a picture that wasn't taken yet into `picture`, whose memory it uses; false if there is none.
    bool takePicture(Picture& picture);

private:
    void onVideoSizeUpdated(int width, int height, int rotate) override;
    void onPrepared(bool hasVideo, bool hasAudio) override;
    void onStarted() override;
    void onFailed(int errorType) override;
    void onFirstVideoFrame(int ptsMs) override;
    void onFirstAudioFrame(int ptsMs) override;
    void onCompleted() override;
    void onDurationUpdated(int durationMs) override;

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

    const std::string file_;
    const bool keepPictures_;
    kelp::TarnPlayer* const player_;
    std::atomic<float> volume_;
    std::atomic<bool> begun_{false};
    std::atomic<bool> failed_{false};
    std::atomic<bool> ended_{false};
    std::atomic<bool> hasVideo_{false};
    std::atomic<int> pictures_{0};
    std::atomic<int64_t> shownMs_{0};

    int width_ = 0;  // of the pictures to come; the video thread's own
    int height_ = 0;
    std::mutex mutex_;  // guards the two below
    Picture picture_;
    bool fresh_ = false;  // nobody took it yet
};
