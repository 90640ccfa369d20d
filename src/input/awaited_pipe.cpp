#include "input/awaited_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

constexpr int kPollMs = 100;

bool isFifo(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_fifo(path, error);
}

}  // namespace

bool isPipe(const std::string& path) {
    return path.starts_with("pipe:") || isFifo(path);
}

AwaitedPipe::AwaitedPipe(const std::string& path, const std::function<bool()>& isStopped) {
    if (!isFifo(path)) {
        return;
    }
    // Open for both, it waits for nobody, and what was written stays when the writer has gone.
    descriptor_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    pollfd waiting{descriptor_, POLLIN, 0};
    const auto isToWait = [&] {
        const int ready = ::poll(&waiting, 1, kPollMs);
        return ready == 0 || (ready < 0 && errno == EINTR);  // a signal of the host's is none of the writer's
    };
    while (descriptor_ >= 0 && !isStopped() && isToWait()) {
    }
}

// The library's own open, and then the writer's end is let go: the first read is to find the end behind what was
// written.
void AwaitedPipe::watchOpenOf(AVFormatContext* input) {
    if (descriptor_ < 0) {
        return;
    }
    static const auto openIo = input->io_open;
    input->opaque = this;
    input->io_open = [](AVFormatContext* opened, AVIOContext** io, const char* url, int flags, AVDictionary** options) {
        const int result = openIo(opened, io, url, flags, options);
        static_cast<AwaitedPipe*>(opened->opaque)->letGo();
        opened->io_open = openIo;
        return result;
    };
}

void AwaitedPipe::letGo() {
    if (const int descriptor = std::exchange(descriptor_, -1); descriptor >= 0) {
        ::close(descriptor);
    }
}

}  // namespace kelp
