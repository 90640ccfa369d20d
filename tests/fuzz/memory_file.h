#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_target.h"

namespace kelp::test {

// A file without a name on any disk.
class MemoryFile {
public:
    MemoryFile(const uint8_t* data, size_t size) : file_(memfd_create("fuzz", MFD_CLOEXEC)) {
        size_t done = 0;
        while (done < size) {
            const ssize_t count = write(file_, data + done, size - done);
            require(count > 0, "room for the file");
            done += static_cast<size_t>(count);
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { close(file_); }

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

private:
    int file_;
};

// What a run does besides follows from the bytes, which stay a file as they are.
inline uint32_t hashOf(const uint8_t* data, size_t size) {
    uint32_t value = 2166136261U;
    for (size_t i = 0; i < size; ++i) {
        value = (value ^ data[i]) * 16777619U;
    }
    return value;
}

}  // namespace kelp::test
