#include "tile.h"

#include <cstring>
#include <utility>

Tile::Tile(const std::string& file, const Settings& settings, kelp::TarnSyncClock* clock, bool withSound,
           bool keepPictures)
    : file_(file), keepPictures_(keepPictures), player_(kelp::TarnPlayer::create()), volume_(withSound ? 1.0F : 0.0F) {
    player_->setOption("preset", "recommended");
    player_->setOption("log_level", "none");
    for (const auto& [key, value] : settings) {
        player_->setOption(key.c_str(), value.c_str());
    }
    player_->setSyncClock(clock);
    player_->addWindow(static_cast<kelp::ExternFrameSink*>(this), kelp::WINDOW_TYPE_EXTERN, 0, 0);
    if (!player_->setDataSource(file.c_str(), 0, this) || !player_->prepareAsync() || !player_->start()) {
        failed_ = true;
        begun_ = true;
    }
}

Tile::~Tile() {
    player_->stop();
    kelp::TarnPlayer::destroy(player_);
}

void Tile::setVolume(float volume) {
    volume_ = volume;
    player_->setVolume(volume);
}

void Tile::seek(int64_t ms) {
    if (player_->seek(static_cast<int>(ms))) {
        ended_ = false;
    }
}

bool Tile::takePicture(Picture& picture) {
    std::lock_guard lock(mutex_);
    if (!fresh_) {
        return false;
    }
    fresh_ = false;
    std::swap(picture, picture_);
    return true;
}

void Tile::onVideoSizeUpdated(int, int, int) {
}
void Tile::onPrepared(bool hasVideo, bool) {
    hasVideo_ = hasVideo;
}
void Tile::onStarted() {
    player_->setVolume(volume_);
}
void Tile::onFailed(int) {
    failed_ = true;
    begun_ = true;
}
void Tile::onFirstVideoFrame(int) {
    begun_ = true;
}
void Tile::onFirstAudioFrame(int) {
    if (!hasVideo_) {
        begun_ = true;
    }
}
void Tile::onCompleted() {
    ended_ = true;
}
void Tile::onDurationUpdated(int) {
}

void Tile::onVideoSize(int width, int height, int) {
    width_ = width;
    height_ = height;
}

bool Tile::onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int, int64_t) {
    if (hasPicture() && pts == shownMs_) {
        return true;  // a repaint
    }
    shownMs_ = pts;
    ++pictures_;
    if (!keepPictures_ || pixFormat != kelp::PIX_FMT_YUV420P) {
        return true;
    }
    std::lock_guard lock(mutex_);
    picture_.width = width_;
    picture_.height = height_;
    for (size_t plane = 0; plane < picture_.planes.size(); ++plane) {
        const int width = plane == 0 ? width_ : width_ / 2;
        const int height = plane == 0 ? height_ : height_ / 2;
        auto& target = picture_.planes[plane];
        target.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
        for (int row = 0; row < height; ++row) {
            std::memcpy(target.data() + static_cast<ptrdiff_t>(row) * width,
                        data[plane] + static_cast<ptrdiff_t>(row) * linesize[plane], static_cast<size_t>(width));
        }
    }
    fresh_ = true;
    return true;
}
