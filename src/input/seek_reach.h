#pragma once

#include <cstdint>
#include <limits>
#include <optional>

namespace kelp {

// Whether a seek of the input has landed far enough back for an exact seek: at a key frame and at sound that aren't
// behind the target. The library's own seek may miss it, by a transport stream's lack of an index, or as pictures are
// shown in another order than they are stored.
//
// It is told of all packets from the place on, until the verdict stands. Knows no thread; all times are milliseconds.
class SeekReach {
public:
    enum class Verdict { Open, Reached, TooLate };

    // A seek to `targetMs` has begun, of an input with these streams. Sound is needed so long before it.
    void begin(int64_t targetMs, bool hasVideo, bool hasSound, int64_t soundLeadInMs = 0);
    // The input was brought farther back than before, or to its start.
    void again();
    void end() { isOpen_ = false; }

    // Between `begin` and the verdict: the packets aren't for anybody yet.
    bool isOpen() const { return isOpen_; }

    // The next packet, by its times of showing and decoding.
    Verdict takePicture(bool isKey, int64_t ptsMs, int64_t dtsMs);
    Verdict takeSound(int64_t ptsMs, int64_t durationMs);
    // There is no more.
    Verdict takeEnd();

    // By how much more than at first the input is to go back for the next try.
    int64_t backMs() const { return backMs_; }

private:
    void expect();
    Verdict verdict();

    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

    bool isOpen_ = false;
    bool hasVideo_ = false;
    bool hasSound_ = false;
    int64_t targetMs_ = 0;
    int64_t soundTargetMs_ = 0;
    int64_t backMs_ = 0;
    int packets_ = 0;              // of this try
    std::optional<bool> picture_;  // a key frame is there in time; nothing as long as it isn't known
    std::optional<bool> sound_;
    int64_t soundMs_ = kNone;        // where it begins at this try
    int64_t soundBeforeMs_ = kNone;  // and at the one before
};

}  // namespace kelp
