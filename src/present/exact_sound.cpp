#include "present/exact_sound.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "present/tempo_library.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr double kSecondUs = 1e6;
constexpr int64_t kGraceUs = 200'000;  // that sound may take to come after a seek, before pictures go on without it

// A frame's time is rounded to milliseconds, and may be rough: within this distance it follows the one before.
constexpr int64_t kGapUs = 40'000;
constexpr int64_t kFollowPart = 32;   // of the distance is made up for at each frame
constexpr int64_t kHoleUs = 100'000;  // from which on the time in which there is no sound passes in silence

// What makes up for a distance, of the time that the ear takes for it, as a part of the tempo.
constexpr double kInStepUs = 10'000;  // within this, too little to be heard
constexpr double kInStepPart = 0.03;
constexpr double kCatchUpUs = 200'000;  // beyond it, a distance of this would take its time to go
constexpr double kMostSlower = 0.5;
constexpr double kMostFaster = 1.0;

constexpr int64_t kTooFarAheadUs = 200'000;  // sound that is played stops rather than to go on so slowly
constexpr int64_t kShortestWaitUs = 1'000;
constexpr double kSlowestPace = 0.1;  // of a master that is waited for

// The tempo library's numbers for what it tells of itself.
constexpr int kFilterLength = 1;
constexpr int kOverlapMs = 5;
constexpr int kInputPerStep = 6;
constexpr int kOutputPerStep = 7;
constexpr int kLatency = 8;

double correction(double aheadUs) {
    const double off = std::abs(aheadUs);
    const double part = kInStepPart * std::min(off / kInStepUs, 1.0) + std::max(off - kInStepUs, 0.0) / kCatchUpUs;
    return aheadUs > 0 ? -std::min(part, kMostSlower) : std::min(part, kMostFaster);
}

// By how many samples per channel that which came out last lies behind what went in last.
//
// The library plays pieces at their own tempo, and goes on in what was put in by the wanted one: between two pieces it
// leaves out a part, or repeats one. So a piece is right in its middle only, and of a part that is heard twice the ear
// takes the first. It looks for the best place of a piece in a window; what was put in counts from its middle.
double heldBack(void* tempoLibrary, int sampleRate, double tempo) {
    const double inputStep = soundtouch_getSetting(tempoLibrary, kInputPerStep);
    const double outputStep = soundtouch_getSetting(tempoLibrary, kOutputPerStep);
    const double overlap = soundtouch_getSetting(tempoLibrary, kOverlapMs) * sampleRate / 1000.0;
    const double filter = soundtouch_getSetting(tempoLibrary, kFilterLength);
    const double window =
        soundtouch_getSetting(tempoLibrary, kLatency) - filter - overlap - std::max(inputStep, outputStep);
    const double slower = std::max(1 - tempo, 0.0);
    const double ofPiece = (1 - tempo + slower * slower) * outputStep / 2 + slower * overlap;
    const double inside = soundtouch_numUnprocessedSamples(tempoLibrary) + filter / 2;
    return inside - std::max(window, 0.0) / 2 - ofPiece + soundtouch_numSamples(tempoLibrary) * tempo;
}

}  // namespace

void ExactSound::setSpeed(float speed) {
    SoundTiming::setSpeed(speed);
    const int64_t nowUs = KelpTime::getSteadyUs();
    const HeardSound heardNow = heard(nowUs);
    std::lock_guard lock(mutex_);
    clock_.setSpeed(speed, heardNow, nowUs);
}

void ExactSound::setPaused(bool paused) {
    const int64_t nowUs = KelpTime::getSteadyUs();
    const HeardSound heardNow = heard(nowUs);
    std::lock_guard lock(mutex_);
    clock_.pause(paused, heardNow, nowUs);
}

bool ExactSound::hasTime() const {
    std::lock_guard lock(mutex_);
    return clock_.hasTime();
}

int64_t ExactSound::positionMs() const {
    const HeardSound heardNow = heard(KelpTime::getSteadyUs());
    std::lock_guard lock(mutex_);
    return clock_.position(heardNow) / 1000;
}

int64_t ExactSound::readMs() const {
    return readUs() / 1000;
}

int64_t ExactSound::readUs() const {
    const int64_t nowUs = KelpTime::getSteadyUs();
    const HeardSound heardNow = heard(nowUs);
    std::lock_guard lock(mutex_);
    return clock_.read(heardNow, nowUs);
}

HeardSound ExactSound::heard(int64_t nowUs) const {
    const auto output = output_.load();
    return output ? output->heard(nowUs) : HeardSound{};
}

void ExactSound::seek(int64_t ms) {
    stand(wrappingMultiply(ms, 1000), KelpTime::getSteadyUs() + kGraceUs);
}

void ExactSound::runFrom(int64_t ms) {
    stand(wrappingMultiply(ms, 1000), KelpTime::getSteadyUs());
}

void ExactSound::stand(int64_t us, int64_t fromUs) {
    endUs_ = kNoTimeUs;
    masterPace_.restart();
    std::lock_guard lock(mutex_);
    clock_.stand(us, fromUs);
}

// A frame of no length carries the flush out, so that the next one is heard.
void ExactSound::empty(IAudioOutput* output, void* tempoLibrary) {
    if (output) {
        auto nothing = std::make_shared<AudioFrameInfo>();
        nothing->buffer = std::make_shared<FrameBuffer>();
        output->flush();
        output->fillFrame(std::move(nothing));
    }
    if (tempoLibrary) {
        soundtouch_clear(tempoLibrary);
    }
    endUs_ = kNoTimeUs;
}

int64_t ExactSound::beginOf(const AudioFrameInfo& frame) const {
    const int64_t statedUs = wrappingMultiply(frame.pts, 1000);
    const int64_t offUs = wrappingSubtract(statedUs, endUs_);
    const bool isGap = endUs_ == kNoTimeUs || offUs > kGapUs || offUs < -kGapUs;
    return isGap ? statedUs : wrappingAdd(endUs_, offUs / kFollowPart);
}

int64_t ExactSound::begin(const AudioFrameInfo& frame, int64_t /*durationMs*/, IAudioOutput& output,
                          int64_t /*nowMs*/) {
    const int64_t nowUs = KelpTime::getSteadyUs();
    const HeardSound heardNow = output.heard(nowUs);
    beginUs_ = beginOf(frame);
    if (endUs_ == kNoTimeUs) {
        outUs_ = beginUs_;
    }
    const auto heldUs = static_cast<double>(wrappingSubtract(beginUs_, outUs_));

    std::unique_lock lock(mutex_);
    if (!clock_.hasTime()) {
        clock_.stand(beginUs_, SoundClock::kNeverUs);
    }
    const bool isDry = clock_.isDry(heardNow);
    lock.unlock();

    const double speed = speed_.load(std::memory_order_relaxed);
    const double ownTempo = std::max<double>(kMinTempo, speed);
    // The device's clock isn't the one that films and masters go by.
    const double device = heardNow.framesPerSecond > 0 ? spec_.sampleRate / heardNow.framesPerSecond : 1;
    tempo_ = limited(ownTempo, ownTempo * device);
    unSyncSamples_.store(0, std::memory_order_relaxed);
    aheadOfMasterMs_ = 0;
    const auto master = master_.load();
    if (!master) {
        return leftOfHole(heardNow, nowUs);
    }
    const int64_t masterUs = master->getSyncPtsUs();
    masterPace_.expect(master->getSyncSpeed().value_or(speed));
    masterPace_.read(masterUs, nowUs);
    const double pace = std::max(masterPace_.pace(), 0.0);
    const bool isStanding = pace <= 0;
    const double base = pace * device;

    const double toEarUs = static_cast<double>(heardNow.delayUs) + heldUs / std::max(base, kSlowestPace);
    const double aheadUs = static_cast<double>(beginUs_) - static_cast<double>(masterUs) - pace * toEarUs;
    aheadOfMasterMs_ = truncated<int64_t>(aheadUs / 1000);
    const bool isForced = master->isForceSync() && aheadUs > 0;
    const int64_t noSyncMs = std::max(kNoSyncThresholdMs, master->getNoSyncThreshold());
    if (!isForced && std::abs(aheadUs) >= static_cast<double>(noSyncMs) * 1000) {
        return 0;
    }
    if (aheadUs > (isDry || isStanding ? kShortestWaitUs : kTooFarAheadUs)) {
        if (isDry) {
            lock.lock();
            clock_.stand(outUs_, SoundClock::kNeverUs);
            lock.unlock();
        }
        const double waitUs =
            isStanding ? kRetryUs : std::min<double>(aheadUs / std::max(pace, kSlowestPace), kRetryUs);
        return static_cast<int64_t>(waitUs);
    }
    // To what stands ahead it goes at its own speed. Slower than this nothing can be heard, and one block would become
    // many.
    const double slowest = std::min(kSlowestPace, ownTempo);
    const double pacedBy = isStanding ? ownTempo : base;
    const double wanted = std::max(slowest, pacedBy * (1 + correction(aheadUs / std::max(pacedBy, kSlowestPace))));
    tempo_ = limited(wanted, ownTempo * device);
    unSyncSamples_.store(static_cast<int>(aheadUs * spec_.sampleRate / kSecondUs), std::memory_order_relaxed);
    return 0;
}

int64_t ExactSound::leftOfHole(const HeardSound& heardNow, int64_t nowUs) {
    const int64_t holeUs = endUs_ == kNoTimeUs ? 0 : wrappingSubtract(beginUs_, endUs_);
    // What comes late of a live source is caught up with.
    if (holeUs < kHoleUs || holeUs >= kNoSyncThresholdMs * 1000 || mostTempo_ > 0) {
        return 0;
    }
    const double speed = std::max<double>(kMinTempo, speed_.load(std::memory_order_relaxed));
    const int64_t heldUs = wrappingSubtract(endUs_, outUs_);
    std::lock_guard lock(mutex_);
    clock_.start(nowUs);
    const int64_t nextUs = wrappingSubtract(beginUs_, heldUs);
    const double leftUs = static_cast<double>(wrappingSubtract(nextUs, clock_.read(heardNow, nowUs))) / speed -
                          static_cast<double>(heardNow.delayUs);
    if (leftUs > kShortestWaitUs) {
        return std::min(static_cast<int64_t>(leftUs), kRetryUs);
    }
    clock_.stand(nextUs, SoundClock::kNeverUs);
    endUs_ = beginUs_;
    return 0;
}

void ExactSound::handOver(void* tempoLibrary, int64_t put, int64_t got) {
    endUs_ = wrappingAdd(beginUs_, toUs(static_cast<double>(put)));
    if (got < 1) {
        return;
    }
    const double held = tempoLibrary ? heldBack(tempoLibrary, spec_.sampleRate, tempo_) : 0;
    outUs_ = wrappingSubtract(endUs_, toUs(held));
    const int64_t outBeginUs = wrappingSubtract(outUs_, toUs(static_cast<double>(got) * tempo_));
    const HeardSound heardNow = heard(KelpTime::getSteadyUs());
    std::lock_guard lock(mutex_);
    clock_.add(got, outBeginUs, outUs_, heardNow);
}

int64_t ExactSound::toUs(double frames) const {
    return spec_.sampleRate > 0 ? std::llround(frames / spec_.sampleRate * kSecondUs) : 0;
}

}  // namespace kelp
