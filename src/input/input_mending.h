#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "input/held_packet.h"

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace kelp {

// Makes good what an input says wrongly of itself, or doesn't say: where its time begins, how long it is, when its
// packets are due, which pictures are key frames, where a seek can go. One that isn't wanted takes the input at its
// word. No thread of its own and no lock: of one input at a time, for one thread at a time.
class InputMending {
public:
    InputMending() = default;
    // Of a live source it is only seen to that pictures are shown.
    explicit InputMending(bool isWanted, bool isLive = false)
        : isWanted_(isWanted && !isLive), showsUnmarked_(isWanted), isLive_(isLive) {}

    bool isWanted() const { return isWanted_; }

    // The input's time that is position 0, in microseconds, of one that begins at `startUs`. Standard: times below 0
    // are positions below 0.
    int64_t originUs(int64_t startUs) const { return isWanted_ || startUs > 0 ? startUs : 0; }

    // Its length in microseconds, as far as is known now; `input` says one.
    int64_t durationUs(const AVFormatContext& input) const;

    // Whether `packet`, a picture that isn't marked as a key frame and comes before all that are, is to be shown as
    // one. Standard: never.
    bool isShownUnmarked(const AVPacket& packet, const AVStream& video);
    // Whether `packet`, the next picture that is handed on, is to be shown though what it builds on may be missing:
    // none was a key frame, and none is to be hoped for. Standard: never.
    bool isHopeless(const AVPacket& packet, const AVStream& video);
    // Keeps a copy of one that isn't shown yet, as long as no key frame was marked. False if it never will be shown.
    bool keep(const AVPacket& packet);
    // Those that were kept, in their order: none is marked, or there is nothing more to come.
    std::vector<HeldPacket> takeKept();
    // None will be, as it seems by now.
    bool marksNone() const { return marksNone_; }
    // A key frame is marked: the input tells them.
    void setMarked() { marksNone_ = false, isMarked_ = true; }

    // Gives a packet without any time the one at which the packet before it has ended.
    void fillTime(AVPacket& packet, const AVStream& stream, bool isVideo);
    // Whether `packet`, the picture whose time was filled last, tells no more of it than its place in the order of
    // decoding. So may packets of others; a stream tells more if one of its packets does. Standard: never.
    bool isTimedByOrder(const AVPacket& packet) const;

    // As avformat_seek_file, below and above `targetUs` up to `maxUs`. Where that isn't to be had, the input goes back
    // to its first byte.
    int seek(AVFormatContext* input, int64_t targetUs, int64_t maxUs);

private:
    // For how long pictures have come without a key frame.
    int64_t unmarkedUs(const AVPacket& packet, const AVStream& video);

    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

    bool isWanted_ = false;
    bool showsUnmarked_ = false;
    bool isLive_ = false;
    bool hasKeyFrame_ = false;         // one was handed on
    bool isHopeless_ = false;          // none ever will be
    bool isMarked_ = false;            // a key frame was
    bool marksNone_ = false;           // none will be: no more waiting for one
    int64_t unmarkedSinceUs_ = kNone;  // the first picture that waits for a key frame
    std::vector<HeldPacket> kept_;
    bool isVideoTimeFilled_ = false;     // of the last picture
    std::array<int64_t, 2> endTicks_{};  // of the last packet, in ticks; sound, video
};

}  // namespace kelp
