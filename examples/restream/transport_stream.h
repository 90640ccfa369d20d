#pragma once

#include <array>
#include <cstdint>
#include <fstream>
#include <string>

// A file with an MPEG transport stream, read in pieces of seven packets: what a datagram of the usual size holds.
class TransportStream {
public:
    // On failure it says why in `error` and gives false.
    bool open(const std::string& path, std::string& error);

    // Reads the next piece; false at the end.
    bool next();

    const unsigned char* data() const { return piece_.data(); }
    int size() const { return size_; }
    // The stream's own clock (PCR) as far as it was read, in microseconds; counted from its first value on.
    int64_t clockUs() const { return clockUs_; }

private:
    static constexpr int kPacketBytes = 188;
    static constexpr int kPacketsInPiece = 7;

    void noteClock(const unsigned char* packet);

    std::ifstream file_;
    std::array<unsigned char, kPacketBytes * kPacketsInPiece> piece_{};
    int size_ = 0;
    int clockPid_ = -1;      // of the stream whose clock counts, the first one that has any
    int64_t lastClock_ = 0;  // its last value, in 90000ths of a second
    int64_t clockUs_ = 0;
};
