#include "c/player.h"

using namespace kelp::c;

static_assert(same(KELP_FAILURE_STREAM, kelp::ERROR_TYPE_STREAM));
static_assert(same(KELP_FAILURE_VIDEO_DECODE, kelp::ERROR_TYPE_VIDEO_DECODE));
static_assert(same(KELP_SYNC_MASTER_CLOCK, kelp::SYNC_MASTER_CLOCK));
static_assert(same(KELP_SYNC_MASTER_AUDIO, kelp::SYNC_MASTER_AUDIO));
static_assert(same(KELP_SYNC_MASTER_VIDEO, kelp::SYNC_MASTER_VIDEO));
static_assert(same(KELP_HW_DECODE_NONE, kelp::HW_DECODE_NONE));
static_assert(same(KELP_HW_DECODE_DECODER, kelp::HW_DECODE_DECODER));
static_assert(same(KELP_HW_DECODE_ACCEL, kelp::HW_DECODE_ACCEL));
static_assert(same(KELP_HW_DECODE_ALL, kelp::HW_DECODE_ALL));
static_assert(same(KELP_INFO_DURATION, kelp::INFO_DURATION));
static_assert(same(KELP_INFO_WIDTH, kelp::INFO_WIDTH));
static_assert(same(KELP_INFO_HEIGHT, kelp::INFO_HEIGHT));
static_assert(same(KELP_INFO_ROTATE, kelp::INFO_ROTATE));
static_assert(same(KELP_INFO_FPS, kelp::INFO_FPS));

kelp_player::kelp_player(const kelp_player_events& events) : player(kelp::TarnPlayer::create()), events_(events) {
    if (!player) {
        throw std::runtime_error("the engine can't be started; the log's last lines say why");
    }
    if (events_.on_stalled || events_.on_buffering || events_.on_stall_ended) {
        player->setStallObserver(this);
    }
}

kelp_player::~kelp_player() {
    kelp::TarnPlayer::destroy(player);
}

void kelp_player::onVideoSizeUpdated(int width, int height, int rotate) {
    tell(events_.on_video_size, width, height, rotate);
}

void kelp_player::onPrepared(bool hasVideo, bool hasAudio) {
    tell(events_.on_prepared, hasVideo, hasAudio);
}

void kelp_player::onStarted() {
    tell(events_.on_started);
}

void kelp_player::onFailed(int errorType) {
    error.set("on_failed", errorType == KELP_FAILURE_START    ? "playing couldn't be started"
                           : errorType == KELP_FAILURE_STREAM ? "the source couldn't be opened or read"
                                                              : "the video decoder gave up");
    tell(events_.on_failed, errorType);
}

void kelp_player::onFirstVideoFrame(int ptsMs) {
    tell(events_.on_first_video_frame, ptsMs);
}

void kelp_player::onFirstAudioFrame(int ptsMs) {
    tell(events_.on_first_audio_frame, ptsMs);
}

void kelp_player::onCompleted() {
    tell(events_.on_completed);
}

void kelp_player::onDurationUpdated(int durationMs) {
    tell(events_.on_duration_updated, durationMs);
}

void kelp_player::onStalled() {
    tell(events_.on_stalled);
}

void kelp_player::onBuffering(int waitingMs, int percent) {
    tell(events_.on_buffering, waitingMs, percent);
}

void kelp_player::onStallEnded() {
    tell(events_.on_stall_ended);
}

kelp_player* kelp_player_create(const kelp_player_events* events) {
    return made<kelp_player>(__func__, [&] { return std::make_unique<kelp_player>(neededUnlessNull(events)); });
}

void kelp_player_destroy(kelp_player* player) {
    delete player;
}

const char* kelp_player_last_error(const kelp_player* player) {
    return errorText(player);
}

int kelp_player_set_data_source(kelp_player* player, const char* url, int offset_ms) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        return handle.player->setDataSource(needed(url), offset_ms, handle.observer());
    });
}

int kelp_player_prepare_async(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->prepareAsync(); });
}

int kelp_player_start(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->start(); });
}

int kelp_player_pause(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->pause(); });
}

int kelp_player_resume(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->resume(); });
}

int kelp_player_seek(kelp_player* player, int time_ms) {
    return carryOut(__func__, player, [&](kelp_player& handle) { return handle.player->seek(time_ms); });
}

int kelp_player_step_frame(kelp_player* player, int pictures) {
    return carryOut(__func__, player, [&](kelp_player& handle) { return handle.player->stepFrame(pictures); });
}

int kelp_player_set_loop(kelp_player* player, int start_ms, int end_ms) {
    return carryOut(__func__, player, [&](kelp_player& handle) { return handle.player->setLoop(start_ms, end_ms); });
}

int kelp_player_clear_loop(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) {
        handle.player->clearLoop();
        return true;
    });
}

int kelp_player_stop(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->stop(); });
}

int kelp_player_reset(kelp_player* player) {
    return carryOut(__func__, player, [](kelp_player& handle) { return handle.player->reset(); });
}

int kelp_player_get_current_time(kelp_player* player) {
    return valueOf(__func__, player, 0, [](kelp_player& handle) { return handle.player->getCurrentTime(); });
}

int kelp_player_get_duration(kelp_player* player) {
    return valueOf(__func__, player, 0, [](kelp_player& handle) { return handle.player->getDuration(); });
}

int64_t kelp_player_get_info(kelp_player* player, int info) {
    return valueOf(__func__, player, int64_t{0}, [&](kelp_player& handle) {
        require(info >= KELP_INFO_DURATION && info <= KELP_INFO_FPS, "there is no such information");
        return handle.player->getPlayDetailInfo(static_cast<kelp::TarnPlayerInfoType>(info));
    });
}

int kelp_player_set_volume(kelp_player* player, float volume) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(handle.player->setVolume(volume), "there is no sound that plays");
    });
}

int kelp_player_set_speed(kelp_player* player, float speed) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(speed > 0, "the speed isn't above 0");
        handle.player->setSpeed(speed);
    });
}

int kelp_player_enable_hw_decoder(kelp_player* player, int enable, int mode) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(mode >= KELP_HW_DECODE_NONE && mode <= KELP_HW_DECODE_ALL, "there is no such mode");
        handle.player->enableHwDecoder(enable != 0, static_cast<kelp::HwDecodeMode>(mode));
    });
}

int kelp_player_set_sync_master(kelp_player* player, int master) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(master >= KELP_SYNC_MASTER_CLOCK && master <= KELP_SYNC_MASTER_VIDEO, "there is no such master");
        handle.player->setAVSyncMode(static_cast<kelp::SyncMasterMode>(master));
    });
}

int kelp_player_take_snapshot(kelp_player* player, const char* path) {
    return carryOut(__func__, player, [&](kelp_player& handle) { return handle.player->takeSnapshot(needed(path)); });
}

int kelp_player_set_option(kelp_player* player, const char* key, const char* value) {
    return carryOut(__func__, player,
                    [&](kelp_player& handle) { handle.player->setOption(needed(key), needed(value)); });
}
