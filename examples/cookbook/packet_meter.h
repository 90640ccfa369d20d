#pragma once

#include <kelp_player/packet_sink.h>

#include <atomic>
#include <cstdint>
#include <vector>

// Measures the longest distance of two key frames of what is played.
// [meter]
class PacketMeter final : public kelp::ExternPacketSink {
public:
    void onStreams(const std::vector<kelp::PacketStream>& streams) override {
        for (const auto& stream : streams) {
            if (stream.kind == kelp::TRACK_KIND_VIDEO) {
                secondsPerTick_ = static_cast<double>(stream.timeBaseNum) / stream.timeBaseDen;
            }
        }
        last_ = kelp::Packet::kNoTime;
    }
    void onPacket(const kelp::Packet& packet) override {
        if (packet.kind != kelp::TRACK_KIND_VIDEO || !packet.isKeyFrame || packet.pts == kelp::Packet::kNoTime) {
            return;
        }
        if (last_ != kelp::Packet::kNoTime) {
            const double seconds = static_cast<double>(packet.pts - last_) * secondsPerTick_;
            longest_ = seconds > longest_ ? seconds : longest_.load();
        }
        last_ = packet.pts;
    }
    void onGap() override { last_ = kelp::Packet::kNoTime; }

    double longest() const { return longest_; }  // in seconds; any thread

private:
    // The player's reading thread's.
    double secondsPerTick_ = 0;
    int64_t last_ = kelp::Packet::kNoTime;

    std::atomic<double> longest_{0};
};
// [/meter]
