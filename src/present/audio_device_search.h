#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "decode/audio_output_spec.h"
#include "present/audio_output.h"
#include "runtime/atomic_shared_ptr.h"
#include "runtime/base_thread.h"

namespace kelp {

// Looks for a sound device on a thread of its own, at once and every two seconds until there is one: opening one may
// take long, and so may closing one that is gone. Two seconds lie between any two attempts, as there are devices that
// open and do nothing. The thread is there while it looks, and no longer.
class AudioDeviceSearch : private BaseThread {
public:
    enum class Attempt { First, Again };
    using MakeOutput = std::function<std::shared_ptr<IAudioOutput>(Attempt)>;

    explicit AudioDeviceSearch(MakeOutput makeOutput) : BaseThread("AudioDevice"), makeOutput_(std::move(makeOutput)) {}
    // Calls `end`.
    ~AudioDeviceSearch() override;

    // Closes `lost`, if there is one, and begins to look. Once for each that was found, and at first.
    void begin(AudioOutputSpec spec, std::shared_ptr<IAudioOutput> lost);

    // Waits for the outcome of the first attempt, for `ms` milliseconds at most.
    void waitForFirst(int ms);

    // An output that was found, and opened; empty while there is none. From the thread of `begin`, like that.
    std::shared_ptr<IAudioOutput> take();

    // Ends the search for good, and waits for an attempt that is under way. Any thread.
    void end();

private:
    void Run() override;
    // Whether there is to be one.
    bool restBeforeAttempt();
    void start();  // with threadMutex_ held

    const MakeOutput makeOutput_;
    std::mutex threadMutex_;  // for the coming and going of the thread, which never takes it
    bool isStarted_ = false;  // guarded by threadMutex_, like the next
    bool hasEnded_ = false;
    AudioOutputSpec spec_;                // set before the thread starts, like the next
    std::shared_ptr<IAudioOutput> lost_;  // to be closed
    // The thread's.
    bool isFirst_ = true;
    int64_t triedMs_ = std::numeric_limits<int64_t>::min();  // the end of the last attempt
    AtomicSharedPtr<IAudioOutput> found_;
    std::atomic<bool> hasTried_{false};
    Rest firstTry_;
};

}  // namespace kelp
