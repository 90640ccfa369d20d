#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/sync_clock.h"

namespace kelp::bench {

// One picture as it came out of a player.
struct ShownPicture {
    int64_t ptsMs = 0;
    double atMs = 0;  // when it came first
    int luma = 0;     // of its first pixel
};

// A player in software, with a frame sink that notes what comes when. The log is off.
class FilmPlayer final : private KelpPlayerObserver, private ExternFrameSink {
public:
    // Takes SDL's drivers from the environment. With a clock, `master` is SYNC_MASTER_CLOCK; the clock is started by
    // the first picture, and outlives this object. `timing`: the option of that name.
    explicit FilmPlayer(SyncMasterMode master, TarnSyncClock* clock = nullptr, const std::string& timing = "standard");
    ~FilmPlayer();
    FilmPlayer(const FilmPlayer&) = delete;
    FilmPlayer& operator=(const FilmPlayer&) = delete;

    KelpPlayer& engine() { return *player_; }

    // Loads the file and waits until it can be played.
    bool open(const std::string& path);
    // When that was told, on the steady clock.
    double preparedAtMs();

    // Waits for the first picture from number `from` on that `accepts` takes, an empty one being any. Nothing if the
    // film ends or fails first, or nothing new is shown for a minute.
    std::optional<ShownPicture> waitForPicture(size_t from,
                                               const std::function<bool(const ShownPicture&)>& accepts = {});
    // Waits for the end; false if it fails or takes longer than `timeoutMs`.
    bool waitForEnd(double timeoutMs);

    // All so far; a repaint of the same picture isn't one.
    std::vector<ShownPicture> pictures();
    size_t pictureCount();
    int repaints();
    bool isOver();

private:
    void onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<KelpPlayer> player, bool hasVideo, bool hasAudio) override;
    void onFailed(std::shared_ptr<KelpPlayer> player, int errorType, int extraData) override;
    void onFirstPacket(std::shared_ptr<KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<KelpPlayer> player, int ptsMs) override;
    void onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<KelpPlayer> player) override;
    void onDurationUpdated(std::shared_ptr<KelpPlayer>, int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

    const std::shared_ptr<KelpPlayer> player_;
    TarnSyncClock* const clock_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::vector<ShownPicture> pictures_;
    int repaints_ = 0;
    double preparedAtMs_ = 0;  // 0 until then
    bool clockStarted_ = false;
    bool failed_ = false;
    bool completed_ = false;
};

}  // namespace kelp::bench
