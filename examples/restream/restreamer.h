#pragma once

#include <cstdint>
#include <string>

#include "options.h"
#include "pace.h"
#include "progress_line.h"

// Carries a source to its destination until it ends or the user ends it.
class Restreamer {
public:
    explicit Restreamer(Options options);

    // The program's exit code: 0, or 1 after a failure, of which one line stands on standard error.
    int run();

private:
    bool publish();
    bool sendDatagrams();
    // Waits for `timeUs` of the source, unless it is to go fast.
    void keepPace(int64_t timeUs);
    // Says what went wrong with `name`; false.
    bool fail(const std::string& name, const std::string& why);

    const Options options_;
    Pace pace_;
    ProgressLine progress_;
};
