#include "support/log_capture.h"

#include <algorithm>
#include <mutex>

#include "kelp_player/log.h"

namespace kelp::test {

struct LogCapture::Lines {
    std::mutex mutex;
    std::vector<std::string> texts;  // guarded by mutex

    void add(const std::string& line) {
        // The tag's bracket follows the reset of the level's colour, or the label of an unknown level.
        auto tag = line.find("[0m [");
        tag = tag == std::string::npos ? line.find(") [") : tag + 2;
        std::lock_guard lock(mutex);
        texts.push_back(tag == std::string::npos ? line : line.substr(tag + 2));
    }
};

LogCapture::LogCapture(int level) : lines_(std::make_shared<Lines>()), oldLevel_(Log::GetLevel()) {
    Log::SetLogCallback([lines = lines_](const char* line) { lines->add(line); });
    Log::SetLevel(level);
}

LogCapture::~LogCapture() {
    Log::SetLevel(oldLevel_);
    Log::SetLogCallback(nullptr);
}

std::vector<std::string> LogCapture::lines() {
    std::lock_guard lock(lines_->mutex);
    return lines_->texts;
}

int LogCapture::count(const std::string& text) {
    std::lock_guard lock(lines_->mutex);
    return static_cast<int>(std::count_if(lines_->texts.begin(), lines_->texts.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

void LogCapture::clear() {
    std::lock_guard lock(lines_->mutex);
    lines_->texts.clear();
}

}  // namespace kelp::test
