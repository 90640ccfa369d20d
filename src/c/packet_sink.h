#pragma once

#include "c/boundary.h"
#include "kelp_player/packet_sink.h"

// A packet sink as a handle: one of the host's that this owns, or a recorder.
struct kelp_packet_sink {
    std::unique_ptr<kelp::ExternPacketSink, void (*)(kelp::ExternPacketSink*)> own{nullptr, nullptr};
    kelp::ExternPacketSink* sink = nullptr;  // not owned
    mutable kelp::c::LastError error;
};
