#include "subtitle/bounded_file.h"

#include <algorithm>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace kelp {

namespace {

constexpr int kBufferBytes = 1 << 16;

}  // namespace

BoundedFile::~BoundedFile() {
    if (bounded_) {
        av_freep(&bounded_->buffer);
        av_freep(&bounded_->protocol_whitelist);  // those of a context of one's own are one's own
        av_freep(&bounded_->protocol_blacklist);
        avio_context_free(&bounded_);
    }
    avio_closep(&file_);
}

int BoundedFile::open(const std::string& path, const std::map<std::string, std::string>& options,
                      const AVIOInterruptCB& interrupt) {
    AVDictionary* entries = nullptr;
    for (const auto& [key, value] : options) {
        av_dict_set(&entries, key.c_str(), value.c_str(), 0);
    }
    const int result = avio_open2(&file_, path.c_str(), AVIO_FLAG_READ, &interrupt, &entries);
    av_dict_free(&entries);
    if (result < 0) {
        return result;
    }
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    bounded_ = buffer ? avio_alloc_context(buffer, kBufferBytes, 0, this, read, nullptr, seek) : nullptr;
    if (!bounded_) {
        av_free(buffer);
        return AVERROR(ENOMEM);
    }
    bounded_->seekable = file_->seekable;
    // Without these a demuxer would open whatever the file names.
    bounded_->protocol_whitelist = av_strdup(file_->protocol_whitelist);
    bounded_->protocol_blacklist = av_strdup(file_->protocol_blacklist);
    return file_->protocol_whitelist && !bounded_->protocol_whitelist ? AVERROR(ENOMEM) : 0;
}

int BoundedFile::read(void* self, uint8_t* to, int size) {
    auto& file = *static_cast<BoundedFile*>(self);
    const int wanted = static_cast<int>(std::min<int64_t>(size, file.leftBytes_));
    if (wanted == 0) {
        file.isCut_ = true;
        return AVERROR_EOF;
    }
    const int bytes = avio_read_partial(file.file_, to, wanted);
    file.leftBytes_ -= std::max(bytes, 0);
    return bytes != 0 ? bytes : AVERROR_EOF;
}

int64_t BoundedFile::seek(void* self, int64_t position, int whence) {
    return avio_seek(static_cast<BoundedFile*>(self)->file_, position, whence);
}

}  // namespace kelp
