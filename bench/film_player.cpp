#include "film_player.h"

#include <chrono>

#include "measures.h"

namespace kelp::bench {

namespace {

constexpr auto kPatience = std::chrono::seconds(60);  // with a player that shows nothing new

}  // namespace

FilmPlayer::FilmPlayer(SyncMasterMode master, TarnSyncClock* clock, const std::string& timing)
    : player_(std::make_shared<KelpPlayer>()), clock_(clock) {
    failed_ = !player_->init(this);
    player_->setOption("log_level", "none");
    player_->setOption("timing", timing.c_str());
    player_->enableHwDecoder(false, HW_DECODE_NONE);
    player_->setAVSyncMode(master);
    if (clock_) {
        player_->setExternSyncClock(clock_, 0);
    }
    player_->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(this), 0, 0);
}

FilmPlayer::~FilmPlayer() {
    player_->stop();
    player_->setExternSyncClock(nullptr, 0);
    player_->release();
}

bool FilmPlayer::open(const std::string& path) {
    {
        std::lock_guard lock(mutex_);
        preparedAtMs_ = 0;
        completed_ = false;
        pictures_.clear();
        if (failed_) {
            return false;
        }
    }
    if (!player_->loadFileAsync(path.c_str(), 0)) {
        return false;
    }
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return preparedAtMs_ > 0 || failed_; }) && !failed_;
}

double FilmPlayer::preparedAtMs() {
    std::lock_guard lock(mutex_);
    return preparedAtMs_;
}

std::optional<ShownPicture> FilmPlayer::waitForPicture(size_t from,
                                                       const std::function<bool(const ShownPicture&)>& accepts) {
    std::unique_lock lock(mutex_);
    size_t at = from;
    const auto found = [&] {
        while (at < pictures_.size() && accepts && !accepts(pictures_[at])) {
            ++at;
        }
        return at < pictures_.size();
    };
    while (!found()) {
        const size_t seen = pictures_.size();
        const auto isNews = [&] { return pictures_.size() != seen || failed_ || completed_; };
        if (failed_ || completed_ || !changed_.wait_for(lock, kPatience, isNews)) {
            return std::nullopt;
        }
    }
    return pictures_[at];
}

bool FilmPlayer::waitForEnd(double timeoutMs) {
    std::unique_lock lock(mutex_);
    const std::chrono::duration<double, std::milli> patience(timeoutMs);
    return changed_.wait_for(lock, patience, [&] { return completed_ || failed_; }) && completed_;
}

std::vector<ShownPicture> FilmPlayer::pictures() {
    std::lock_guard lock(mutex_);
    return pictures_;
}

size_t FilmPlayer::pictureCount() {
    std::lock_guard lock(mutex_);
    return pictures_.size();
}

int FilmPlayer::repaints() {
    std::lock_guard lock(mutex_);
    return repaints_;
}

bool FilmPlayer::isOver() {
    std::lock_guard lock(mutex_);
    return failed_ || completed_;
}

void FilmPlayer::onPrepared(std::shared_ptr<KelpPlayer>, bool, bool) {
    std::lock_guard lock(mutex_);
    preparedAtMs_ = nowMs();
    changed_.notify_all();
}

void FilmPlayer::onFailed(std::shared_ptr<KelpPlayer>, int, int) {
    std::lock_guard lock(mutex_);
    failed_ = true;
    changed_.notify_all();
}

void FilmPlayer::onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int ptsMs) {
    std::lock_guard lock(mutex_);
    if (clock_ && !clockStarted_) {
        clock_->reset(ptsMs);
        clock_->resume();
        clockStarted_ = true;
    }
}

void FilmPlayer::onCompleted(std::shared_ptr<KelpPlayer>) {
    std::lock_guard lock(mutex_);
    completed_ = true;
    changed_.notify_all();
}

bool FilmPlayer::onVideoFrame(int, int64_t pts, uint8_t** data, int*, int, int64_t) {
    const double now = nowMs();
    std::lock_guard lock(mutex_);
    if (!pictures_.empty() && pictures_.back().ptsMs == pts) {
        ++repaints_;
        return true;
    }
    pictures_.push_back({pts, now, data[0][0]});
    changed_.notify_all();
    return true;
}

}  // namespace kelp::bench
