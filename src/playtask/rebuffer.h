#pragma once

#include <cstdint>
#include <optional>

namespace kelp {

// How playback stands with what it plays from, at one moment.
struct DataLevel {
    int64_t waitingMs = 0;       // so much film waits behind what is shown
    bool isMoreAwaited = false;  // the source is being read: it isn't at its end, and not enough waits
    bool isPlaying = false;      // something is shown, and neither a pause nor a seek holds it
};

// When playback that runs dry stands, and when it goes on. It stands a little before the last picture and the last
// sound have gone, so that none is late, and goes on once so much waits or no more is to come.
//
// Knows no thread and no time: it is to be looked at again in restMs.
class Rebuffer {
public:
    enum class Step { None, Stand, GoOn };

    // `enoughMs`: with so much it goes on.
    explicit Rebuffer(int64_t enoughMs);

    // What is to be done now, if anything; it counts as done.
    Step look(const DataLevel& level);
    // A playback that ends stands no longer.
    Step end();

    bool isStanding() const { return isStanding_; }
    // Of what it takes to go on, as it was seen last.
    int percent() const { return percent_; }
    int restMs() const { return restMs_; }

    // What waits of two streams together, of which either may be missing: as much as of the shorter one. But if it is
    // shorter by more than a second it is sparse, or over, since files have their streams side by side; then it counts
    // as up to there.
    static int64_t together(std::optional<int64_t> videoMs, std::optional<int64_t> soundMs);

private:
    const int64_t enoughMs_;
    const int64_t dryMs_;
    bool isStanding_ = false;
    bool wasDry_ = false;  // at the last look; once is an accident
    int percent_ = 0;
    int restMs_ = 0;
};

}  // namespace kelp
