#include "transport_stream.h"

#include <filesystem>

namespace {

constexpr unsigned char kSync = 0x47;
constexpr int64_t kClockRange = int64_t{1} << 33;  // the clock's values begin anew there

}  // namespace

bool TransportStream::open(const std::string& path, std::string& error) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(path, ignored)) {
        error = "no such file";
        return false;
    }
    file_.open(path, std::ios::binary);
    if (!file_) {
        error = "it can't be read";
        return false;
    }
    file_.read(reinterpret_cast<char*>(piece_.data()), static_cast<std::streamsize>(piece_.size()));
    const auto read = static_cast<int>(file_.gcount());
    bool synchronised = read >= kPacketBytes;
    for (int at = 0; at < read; at += kPacketBytes) {
        synchronised = synchronised && piece_[static_cast<size_t>(at)] == kSync;
    }
    if (!synchronised) {
        error = "it is no MPEG transport stream";
        return false;
    }
    file_.clear();
    file_.seekg(0);
    return true;
}

bool TransportStream::next() {
    file_.read(reinterpret_cast<char*>(piece_.data()), static_cast<std::streamsize>(piece_.size()));
    size_ = static_cast<int>(file_.gcount());
    for (int at = 0; at + kPacketBytes <= size_; at += kPacketBytes) {
        noteClock(piece_.data() + at);
    }
    return size_ > 0;
}

void TransportStream::noteClock(const unsigned char* packet) {
    const bool hasAdaptation = (packet[3] & 0x20) != 0;
    if (packet[0] != kSync || !hasAdaptation || packet[4] < 7 || (packet[5] & 0x10) == 0) {
        return;
    }
    const int pid = (packet[1] & 0x1f) << 8 | packet[2];
    const int64_t clock = static_cast<int64_t>(packet[6]) << 25 | static_cast<int64_t>(packet[7]) << 17 |
                          static_cast<int64_t>(packet[8]) << 9 | static_cast<int64_t>(packet[9]) << 1 | packet[10] >> 7;
    if (clockPid_ == -1) {
        clockPid_ = pid;
        lastClock_ = clock;
    }
    if (pid != clockPid_) {
        return;
    }
    // The way from one value to the next, which may lead over the end of the range.
    const int64_t step = (clock - lastClock_ + kClockRange) % kClockRange;
    clockUs_ += (step < kClockRange / 2 ? step : step - kClockRange) * 100 / 9;
    lastClock_ = clock;
}
