#pragma once

#include <array>
#include <mutex>
#include <string>

#include "kelp_player/recorder.h"
#include "stress/random.h"
#include "support/temp_files.h"

namespace kelp::test {

// Records into a folder that goes with it, into files of any kind. Any thread: one by one they start and stop it.
class RandomRecorder {
public:
    ~RandomRecorder() { recorder.stop(); }
    void start(Random& random) {
        constexpr std::array<const char*, 3> kEndings = {".mkv", ".mp4", ".ts"};
        const char* const ending = kEndings.at(static_cast<size_t>(random.below(3)));
        std::lock_guard lock(mutex_);
        recorder.start(folder_.path(std::string("film") + ending), {.fileBytes = random.below(2) * 20000});
    }
    void stop() {
        std::lock_guard lock(mutex_);
        recorder.stop();
    }

private:
    const TempFolder folder_;
    std::mutex mutex_;

public:
    Recorder recorder;
};

}  // namespace kelp::test
