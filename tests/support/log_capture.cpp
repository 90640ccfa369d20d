#include "support/log_capture.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string_view>

#include "kelp_player/log.h"
#include "support/log_levels.h"

namespace kelp::test {

namespace {

// By the label at the end of what stands before a line's tag.
int levelOf(const std::string& prefix) {
    const std::string_view labels[] = {"(FATAL)", "(ERROR)", "(WARN)", "(Info)", "(DEBUG)"};
    const auto* label = std::ranges::find_if(labels, [&](auto text) { return prefix.find(text) != std::string::npos; });
    return label == std::end(labels) ? -1 : static_cast<int>(label - labels);
}

}  // namespace

struct LogCapture::Lines {
    std::mutex mutex;
    std::vector<std::string> texts;  // guarded by mutex

    void add(const std::string& line) {
        // The tag's bracket follows the reset of the level's colour, or the label of an unknown level.
        auto tag = line.find("[0m [");
        tag = tag == std::string::npos ? line.find(") [") : tag + 2;
        const std::string text = tag == std::string::npos ? line : line.substr(tag + 2);
        const auto message = text.find("]: ");
        if (message != std::string::npos) {
            expectDueLevel(levelOf(line.substr(0, tag)), text.substr(1, message - 1), text.substr(message + 3));
        }
        std::lock_guard lock(mutex);
        texts.push_back(text);
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
