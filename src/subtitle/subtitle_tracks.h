#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "input/subtitle_taker.h"
#include "subtitle/subtitle_decoder.h"
#include "subtitle/subtitle_track.h"

namespace kelp {

// The tracks of subtitles of one source: what was read of them, and which one is shown. What the parser reads is
// decoded on its thread; the rest comes from any.
class SubtitleTracks : public SubtitleTaker {
public:
    static constexpr int kNone = -1;

    virtual ~SubtitleTracks() = default;

    // From the parser.
    void onSubtitleStream(const AVFormatContext& input, const AVStream& stream, int64_t originUs) override;
    void onSubtitlePacket(const AVPacket& packet) override;
    void onSubtitleGap() override;
    void onSubtitleTurn() override;

    // A track that is known whole, and that the parser doesn't know.
    void add(int number, std::shared_ptr<SubtitleTrack> track);

    // Shows track `number` from now on, once something of it was read.
    void choose(int number);
    int chosen() const { return chosen_; }
    // Whether one was chosen since the source was opened.
    bool isAny() const { return isAny_; }

    // Whether `add` has brought it.
    bool isWhole(int number) const;

    // The one that is shown; null if there is none.
    std::shared_ptr<const SubtitleTrack> current() const;

    // Of a source that is left. Not while the parser reads.
    void forget();

private:
    std::atomic<int> chosen_{kNone};
    std::atomic<bool> isAny_{false};
    mutable std::mutex mutex_;                              // a leaf; guards the tracks
    std::map<int, std::shared_ptr<SubtitleTrack>> tracks_;  // by their numbers
    std::set<int> whole_;                                   // likewise

    // What the parser reads, and the track that it is decoded for.
    struct Reading {
        std::unique_ptr<SubtitleDecoder> decoder;
        std::shared_ptr<SubtitleTrack> track;
    };
    std::optional<Reading> reading_;  // the parser's
};

}  // namespace kelp
