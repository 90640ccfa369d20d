#pragma once

#include <functional>
#include <string>

struct AVFormatContext;

namespace kelp {

// Whether `path` names a pipe: one of the file system's, or a descriptor as libavformat writes it.
bool isPipe(const std::string& path);

// Waits until something was written to a pipe of the file system: an open of one without a writer waits for it where
// nobody can end that. Until libavformat has opened the pipe it has a writer, so that this open returns at once, and
// what was written stays. Any other path is let be, and a pipe that the process may only read.
class AwaitedPipe {
public:
    // `isStopped` ends the wait; it is asked every 100 ms.
    AwaitedPipe(const std::string& path, const std::function<bool()>& isStopped);
    ~AwaitedPipe() { letGo(); }
    AwaitedPipe(const AwaitedPipe&) = delete;
    AwaitedPipe& operator=(const AwaitedPipe&) = delete;

    // For `input`, which is about to be opened at the path; this lives until it is.
    void watchOpenOf(AVFormatContext* input);

private:
    void letGo();

    int descriptor_ = -1;
};

}  // namespace kelp
