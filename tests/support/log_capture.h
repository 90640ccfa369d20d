#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kelp::test {

// Catches every log line while it lives, at debug level, and puts the level back and takes the sink away when it goes.
// A line of the library at another level than it is due at fails the test. One at a time. `lines` gives the messages
// without time stamp, level and thread: "[Tag]: message\n". Any thread may ask, and any thread may still log when it
// goes.
class LogCapture {
public:
    explicit LogCapture(int level = 4);
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    // All lines so far, as "[Tag]: message\n".
    std::vector<std::string> lines();
    // Lines that hold `text`.
    int count(const std::string& text);
    bool has(const std::string& text) { return count(text) > 0; }
    void clear();

private:
    struct Lines;

    std::shared_ptr<Lines> lines_;  // shared with the sink, which may still run when this object has gone
    int oldLevel_;
};

}  // namespace kelp::test
