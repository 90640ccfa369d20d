#include "c/packet_sink.h"

#include <vector>

#include "c/player.h"

using namespace kelp::c;

static_assert(KELP_NO_TIME == kelp::Packet::kNoTime);

namespace {

kelp::TrackKind kindOf(int number) {
    require(number >= KELP_TRACK_KIND_VIDEO && number <= KELP_TRACK_KIND_OTHER, "there is no such kind of track");
    return static_cast<kelp::TrackKind>(number);
}

kelp_packet_stream translated(const kelp::PacketStream& from) {
    kelp_packet_stream to{};
    to.size = sizeof(to);
    to.track = from.track;
    to.kind = from.kind;
    to.codec = from.codec.c_str();
    to.time_base_num = from.timeBaseNum;
    to.time_base_den = from.timeBaseDen;
    to.width = from.width;
    to.height = from.height;
    to.frame_rate = from.frameRate;
    to.sample_rate = from.sampleRate;
    to.channels = from.channels;
    to.configuration = from.configuration;
    to.configuration_size = from.configurationSize;
    to.parameters = from.parameters;
    return to;
}

kelp::PacketStream translated(const kelp_packet_stream& from) {
    kelp::PacketStream to;
    to.track = from.track;
    to.kind = kindOf(from.kind);
    to.codec = from.codec ? from.codec : "";
    to.timeBaseNum = from.time_base_num;
    to.timeBaseDen = from.time_base_den;
    to.width = from.width;
    to.height = from.height;
    to.frameRate = from.frame_rate;
    to.sampleRate = from.sample_rate;
    to.channels = from.channels;
    to.configuration = from.configuration;
    to.configurationSize = from.configuration_size;
    to.parameters = from.parameters;
    return to;
}

// Hands what is read to the host's callbacks.
class HostPackets final : public kelp::ExternPacketSink {
public:
    explicit HostPackets(const kelp_packet_sink_calls& calls) : calls_(calls) {}

    void onStreams(const std::vector<kelp::PacketStream>& streams) override {
        if (!calls_.on_streams) {
            return;
        }
        guarded("on_streams", nullptr, 0, [&] {
            const Translation<kelp_packet_stream> known(streams, translated);
            calls_.on_streams(calls_.user, known.pointers.data(), known.pointers.size());
            return 1;
        });
    }

    void onPacket(const kelp::Packet& packet) override {
        if (!calls_.on_packet) {
            return;
        }
        kelp_packet known{};
        known.size = sizeof(known);
        known.track = packet.track;
        known.kind = packet.kind;
        known.data = packet.data;
        known.data_size = packet.size;
        known.is_key_frame = packet.isKeyFrame;
        known.pts = packet.pts;
        known.dts = packet.dts;
        known.duration = packet.duration;
        known.packet = packet.packet;
        calls_.on_packet(calls_.user, &known);
    }

    void onGap() override { tell(calls_.on_gap, calls_.user); }
    void onEnd() override { tell(calls_.on_end, calls_.user); }

private:
    const kelp_packet_sink_calls calls_;
};

}  // namespace

kelp_packet_sink* kelp_packet_sink_create(const kelp_packet_sink_calls* calls) {
    return made<kelp_packet_sink>(__func__, [&] {
        auto handle = std::make_unique<kelp_packet_sink>();
        handle->own = {new HostPackets(needed(calls)),
                       [](kelp::ExternPacketSink* sink) { delete static_cast<HostPackets*>(sink); }};
        handle->sink = handle->own.get();
        return handle;
    });
}

void kelp_packet_sink_destroy(kelp_packet_sink* sink) {
    if (sink && !sink->own) {
        fail(&sink->error, __func__, "a recorder's sink goes with the recorder");
        return;
    }
    delete sink;
}

const char* kelp_packet_sink_last_error(const kelp_packet_sink* sink) {
    return errorText(sink);
}

int kelp_player_set_packet_sink(kelp_player* player, kelp_packet_sink* sink) {
    return carryOut(__func__, player,
                    [&](kelp_player& handle) { handle.player->setPacketSink(sink ? sink->sink : nullptr); });
}

int kelp_packet_sink_put_streams(kelp_packet_sink* sink, const kelp_packet_stream* const* streams, size_t count) {
    return carryOut(__func__, sink, [&](kelp_packet_sink& handle) {
        std::vector<kelp::PacketStream> given;
        for (size_t i = 0; i < count; ++i) {
            given.push_back(translated(needed(streams ? streams[i] : nullptr)));
        }
        handle.sink->onStreams(given);
    });
}

int kelp_packet_sink_put_packet(kelp_packet_sink* sink, const kelp_packet* packet) {
    return carryOut(__func__, sink, [&](kelp_packet_sink& handle) {
        const kelp_packet known = needed(packet);
        kelp::Packet given;
        given.track = known.track;
        given.kind = kindOf(known.kind);
        given.data = known.data;
        given.size = known.data_size;
        given.pts = known.pts;
        given.dts = known.dts;
        given.duration = known.duration;
        given.isKeyFrame = known.is_key_frame != 0;
        given.packet = known.packet;
        handle.sink->onPacket(given);
    });
}

int kelp_packet_sink_put_gap(kelp_packet_sink* sink) {
    return carryOut(__func__, sink, [](kelp_packet_sink& handle) { handle.sink->onGap(); });
}

int kelp_packet_sink_put_end(kelp_packet_sink* sink) {
    return carryOut(__func__, sink, [](kelp_packet_sink& handle) { handle.sink->onEnd(); });
}
