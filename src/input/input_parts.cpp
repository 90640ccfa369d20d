#include "input/input_parts.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "input/playlist_cut.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

namespace kelp {
namespace {

constexpr std::string_view kListBegin = "#EXTM3U";
constexpr size_t kLongestList = 64 << 20;
constexpr int kBufferSize = 32 << 10;
// What FFmpeg's HLS takes on from the connection of its playlist.
constexpr const char* kInherited[] = {"headers", "user_agent", "cookies", "http_proxy", "referer", "rw_timeout"};

decltype(AVFormatContext::io_open) libraryOpen = nullptr;
decltype(AVFormatContext::io_close2) libraryClose = nullptr;

struct Text {
    std::string text;
    size_t read = 0;
};

int readText(void* opaque, uint8_t* buffer, int size) {
    auto& text = *static_cast<Text*>(opaque);
    const size_t part = std::min(text.text.size() - text.read, static_cast<size_t>(size));
    if (part == 0) {
        return AVERROR_EOF;
    }
    std::memcpy(buffer, text.text.data() + text.read, part);
    text.read += part;
    return static_cast<int>(part);
}

AVIOContext* openText(std::string text, int seekable) {
    auto* const buffer = static_cast<uint8_t*>(av_malloc(kBufferSize));
    auto holder = std::make_unique<Text>(Text{std::move(text)});
    AVIOContext* const io =
        buffer ? avio_alloc_context(buffer, kBufferSize, 0, holder.get(), readText, nullptr, nullptr) : nullptr;
    if (!io) {
        av_free(buffer);
        return nullptr;
    }
    io->seekable = seekable;
    holder.release();
    return io;
}

bool isText(const AVIOContext& io) {
    return io.read_packet == readText;
}

void closeText(AVIOContext* io) {
    delete static_cast<Text*>(io->opaque);
    av_freep(&io->buffer);
    avio_context_free(&io);
}

}  // namespace

InputParts::InputParts(const OptionMap& options, int64_t beginUs) : beginUs_(beginUs) {
    for (const char* key : {"reconnect", "reconnect_delay_max"}) {
        if (const auto option = options.find(key); option != options.end()) {
            reconnect_.insert(*option);
        }
    }
}

InputParts::~InputParts() {
    if (own_) {
        closeText(own_);
    }
}

void InputParts::watch(AVFormatContext& input) {
    [[maybe_unused]] static const bool isKept = [&input] {
        libraryOpen = input.io_open;
        libraryClose = input.io_close2;
        return true;
    }();
    input.opaque = this;
    input.io_open = open;
    if (beginUs_ > 0) {
        input.io_close2 = close;
    }
}

int InputParts::open(AVFormatContext* input, AVIOContext** io, const char* url, int flags, AVDictionary** options) {
    auto& parts = *static_cast<InputParts*>(input->opaque);
    if (options && isHttp(url)) {
        for (const OptionMap* const added : {&parts.reconnect_, &parts.inherited_}) {
            for (const auto& [key, value] : *added) {
                av_dict_set(options, key.c_str(), value.c_str(), AV_DICT_DONT_OVERWRITE);
            }
        }
    }
    const int result = libraryOpen(input, io, url, flags, options);
    return result >= 0 && parts.beginUs_ > 0 && parts.isInList_ ? parts.cut(*input, io) : result;
}

int InputParts::close(AVFormatContext* input, AVIOContext* io) {
    if (!io || !isText(*io)) {
        return libraryClose(input, io);
    }
    closeText(io);
    return 0;
}

int InputParts::cut(AVFormatContext& input, AVIOContext** io) {
    std::string text(kListBegin.size(), '\0');
    auto* const begin = reinterpret_cast<unsigned char*>(text.data());
    const int result = avio_read(*io, begin, static_cast<int>(text.size()));
    isInList_ = result == static_cast<int>(text.size()) && text == kListBegin;
    if (!isInList_) {
        return static_cast<int>(std::min<int64_t>(avio_seek(*io, 0, SEEK_SET), 0));  // within what it holds
    }
    char part[4096];
    int size = 0;
    while (text.size() < kLongestList &&
           (size = avio_read(*io, reinterpret_cast<unsigned char*>(part), sizeof(part))) > 0) {
        text.append(part, static_cast<size_t>(size));
    }
    if (size < 0 && size != AVERROR_EOF) {
        libraryClose(&input, std::exchange(*io, nullptr));
        return size;
    }
    auto rest = cutPlaylist(text, beginUs_);
    const bool isOwn = io == &input.pb;
    if (isOwn) {
        inherit(**io);
    }
    const int seekable = (*io)->seekable;
    libraryClose(&input, *io);
    *io = openText(rest ? std::move(*rest) : std::move(text), seekable);
    if (isOwn && *io) {
        own_ = *io;
        input.flags |= AVFMT_FLAG_CUSTOM_IO;
    }
    return *io ? 0 : AVERROR(ENOMEM);
}

void InputParts::inherit(AVIOContext& io) {
    for (const char* key : kInherited) {
        uint8_t* value = nullptr;
        if (av_opt_get(&io, key, AV_OPT_SEARCH_CHILDREN | AV_OPT_ALLOW_NULL, &value) >= 0 && value && *value) {
            inherited_[key] = reinterpret_cast<const char*>(value);
        }
        av_free(value);
    }
}

}  // namespace kelp
