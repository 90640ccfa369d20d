#pragma once

#include <cstdint>

#include "runtime/sink_slot.h"
#include "runtime/stage_counts.h"

struct AVCodecParameters;
struct AVPacket;
struct AVStream;

namespace kelp {

class ExternPacketSink;

// The streams that are played, where there are any.
struct PacketSource {
    const AVStream* video;
    const AVStream* audio;
    const AVCodecParameters* videoAsRead;  // where the video's own ones were converted; or null
};

// Hands what is read to the host's packet sink, if there is one, and lets the host take it back.
//
// `set` and `waitUntilUncalled` come from any thread, the sink's own calls included, the counts likewise; the rest from
// the thread that reads, which costs one look at an atomic without a sink.
class PacketOutlet {
public:
    // Calls `sink`, or none, from now on; it isn't owned. Returns the one that it replaces, to be waited for.
    ExternPacketSink* set(ExternPacketSink* sink) { return sink_.set(sink); }

    // Waits until a call of `sink` that is under way has returned, unless it was set again or this comes from within
    // that call. For a second at most, as the call may wait for a lock that the caller holds; an Error line says so.
    void waitUntilUncalled(const ExternPacketSink* sink);

    void packet(const PacketSource& source, const AVPacket& packet);
    void gap();
    void end();
    // The streams that the sink was told of are at other addresses now, and the same.
    void move(const AVStream* video, const AVStream* audio);
    // The sink is told of the streams again before the next packet, though they are the same.
    void tellAgain() { told_.video = told_.audio = nullptr; }

    // For a playback that begins.
    void resetCounts();
    // The time that the sinks have taken, and at most for one call, in microseconds.
    int64_t busyUs() const { return busyUs_.read(); }
    int64_t longestUs() const { return longestUs_.read(); }

private:
    // One call to the sink that is set at its beginning.
    class Call;

    // What a sink was told of.
    struct Told {
        unsigned int number;  // of the sink; 0 for none
        const AVStream* video;
        const AVStream* audio;
        bool operator==(const Told&) const = default;
    };

    // Unless the sink that is set was told of nothing.
    void tell(const Told& told, void (ExternPacketSink::*what)());

    SinkSlot<ExternPacketSink> sink_;
    Told told_{};  // the reading thread's
    Count busyUs_;
    Count longestUs_;
};

}  // namespace kelp
