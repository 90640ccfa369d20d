#include "kelp_player/recorder.h"

#include "c/packet_sink.h"

using namespace kelp::c;

// A recorder, the host's events, and the recorder as a sink.
struct kelp_recorder final : private kelp::RecorderObserver {
    explicit kelp_recorder(const kelp_recorder_events& events) : events_(events) { sink.sink = &recorder; }
    kelp_recorder(const kelp_recorder&) = delete;
    kelp_recorder& operator=(const kelp_recorder&) = delete;

    mutable LastError error;
    kelp_packet_sink sink;

private:
    void onFileBegun(const std::string& path) override { tell(events_.on_file_begun, events_.user, path.c_str()); }

    void onFileEnded(const std::string& path, int64_t durationMs) override {
        tell(events_.on_file_ended, events_.user, path.c_str(), durationMs);
    }

    void onPacketsLost(int packets) override { tell(events_.on_packets_lost, events_.user, packets); }

    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        error.set("on_failed", reason.c_str());
        tell(events_.on_failed, events_.user, path.c_str(), reason.c_str());
    }

    const kelp_recorder_events events_;

public:
    kelp::Recorder recorder{this};  // goes first, as its thread tells the events
};

kelp_recorder* kelp_recorder_create(const kelp_recorder_events* events) {
    return made<kelp_recorder>(__func__, [&] { return std::make_unique<kelp_recorder>(neededUnlessNull(events)); });
}

void kelp_recorder_destroy(kelp_recorder* recorder) {
    delete recorder;
}

const char* kelp_recorder_last_error(const kelp_recorder* recorder) {
    return errorText(recorder);
}

kelp_packet_sink* kelp_recorder_get_sink(kelp_recorder* recorder) {
    return valueOf(__func__, recorder, static_cast<kelp_packet_sink*>(nullptr),
                   [](kelp_recorder& handle) { return &handle.sink; });
}

int kelp_recorder_start(kelp_recorder* recorder, const char* path, const kelp_recorder_limits* limits) {
    return carryOut(__func__, recorder, [&](kelp_recorder& handle) {
        const kelp_recorder_limits known = neededUnlessNull(limits);
        kelp::RecorderLimits given;
        given.fileMs = known.file_ms;
        given.fileBytes = known.file_bytes;
        if (known.waiting_bytes != 0) {
            given.waitingBytes = known.waiting_bytes;
        }
        return handle.recorder.start(needed(path), given);
    });
}

int kelp_recorder_stop(kelp_recorder* recorder) {
    return carryOut(__func__, recorder, [](kelp_recorder& handle) { handle.recorder.stop(); });
}

int kelp_recorder_is_recording(const kelp_recorder* recorder) {
    return valueOf(__func__, recorder, 0,
                   [](const kelp_recorder& handle) { return handle.recorder.isRecording() ? 1 : 0; });
}
