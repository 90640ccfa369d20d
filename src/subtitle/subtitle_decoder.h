#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "subtitle/subtitle_event.h"

struct AVCodecContext;
struct AVCodecParameters;
struct AVPacket;
struct AVRational;
struct AVSubtitle;

namespace kelp {

// Makes events of the packets of one subtitle stream. One thread at a time.
class SubtitleDecoder {
public:
    // `timeBase`: of the packets; their time `originUs` is 0 of the events. `charset`: of text that isn't UTF-8, a name
    // of iconv's; empty for Windows-1252. Null, and a line in the log says why, if there is no decoder for it.
    // `parameters` are read by this call alone.
    static std::unique_ptr<SubtitleDecoder> open(const AVCodecParameters& parameters, AVRational timeBase,
                                                 int64_t originUs, std::string charset = {});

    bool isText() const;
    // Of text: a script of ASS or SSA, and not one that was made of plainer text.
    bool isStyled() const;
    // Of text: the head of its script.
    std::string script() const;

    // None for a packet that is damaged, or that others are needed for.
    std::vector<SubtitleEvent> decode(const AVPacket& packet);

    // What comes next doesn't go on from what came last.
    void flush();

private:
    struct FreeContext {
        void operator()(AVCodecContext* context) const;
    };
    using Context = std::unique_ptr<AVCodecContext, FreeContext>;

    SubtitleDecoder(Context context, int64_t originUs, std::string charset);
    static Context openContext(const AVCodecParameters& parameters, AVRational timeBase, const char* charset);

    // Less than 0 for an error of the library's, and whether something was decoded.
    int decodeInto(const AVPacket& packet, AVSubtitle& subtitle, bool& isDecoded);
    // Text that isn't UTF-8 is taken for that of the other charset, from here on. False if it is no such text.
    bool changeCharset(const AVPacket& packet);
    void read(const AVSubtitle& subtitle, const AVPacket& packet, std::vector<SubtitleEvent>& events) const;

    Context context_;
    const int64_t originUs_;
    const std::string charset_;
    bool isRecoded_ = false;
    bool hasFailed_ = false;  // it was told
};

}  // namespace kelp
