#pragma once

#include <cstdint>
#include <optional>

struct AVPacket;

namespace kelp {

// Recognises the packets of one stream that were handed on before, when the input is read once more from an earlier
// place: all up to the last one. That one is known by what stands in it; should it not come again, by its decoding
// time.
//
// The reader's thread alone.
class ReadAgain {
public:
    // This packet is handed on now.
    void note(const AVPacket& packet);

    // The input goes back, to no place behind the packet noted last.
    void begin() { active_ = last_.has_value(); }
    bool isActive() const { return active_; }

    // Whether `packet`, the next one of the stream, was handed on before.
    bool wasHandedOn(const AVPacket& packet);

    // The input goes to any other place, or the stream is another one.
    void forget();

private:
    struct Mark {
        int64_t pts;
        int64_t dts;
        int64_t pos;
        int size;

        bool operator==(const Mark&) const = default;
    };
    static Mark markOf(const AVPacket& packet);

    std::optional<Mark> last_;
    bool active_ = false;  // between `begin` and the last one
};

}  // namespace kelp
