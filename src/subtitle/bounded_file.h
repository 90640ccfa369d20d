#pragma once

#include <cstdint>
#include <map>
#include <string>

struct AVIOContext;
struct AVIOInterruptCB;

namespace kelp {

// What a file or URL holds, and no more than a number of bytes of it: some demuxers read all that there is before they
// give a packet. What it may open in turn stays what libavformat allows for it.
class BoundedFile {
public:
    explicit BoundedFile(int64_t maxBytes) : leftBytes_(maxBytes) {}
    ~BoundedFile();
    BoundedFile(const BoundedFile&) = delete;
    BoundedFile& operator=(const BoundedFile&) = delete;

    // `options` are the protocol's. Less than 0 for an error of the library's.
    int open(const std::string& path, const std::map<std::string, std::string>& options,
             const AVIOInterruptCB& interrupt);

    // For a demuxer, once it is open; owned by this.
    AVIOContext* io() { return bounded_; }

    // Whether there was more than may be read.
    bool isCut() const { return isCut_; }

private:
    static int read(void* self, uint8_t* to, int size);
    static int64_t seek(void* self, int64_t position, int whence);

    int64_t leftBytes_;
    bool isCut_ = false;
    AVIOContext* file_ = nullptr;
    AVIOContext* bounded_ = nullptr;
};

}  // namespace kelp
