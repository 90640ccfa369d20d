#include "kelp_player/log.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "runtime/atomic_shared_ptr.h"
#include "runtime/base_thread.h"
#include "runtime/error_line.h"
#include "runtime/kelp_time.h"
#include "runtime/never_destroyed.h"

namespace kelp {

namespace {

enum Level {
    LEVEL_ERROR = 1,
    LEVEL_WARN = 2,
    LEVEL_INFO = 3,
    LEVEL_DEBUG = 4,
};

using Callback = std::function<void(const char*)>;

// Bytes of every buffer here, terminator included.
constexpr int kLineSize = 1024;

// Ready before any constructor runs and never destroyed: static objects of a host may log at any time.
constinit std::atomic<int> m_iLevel{LEVEL_INFO};
constinit std::mutex m_mutex;  // serialises the output
constinit NeverDestroyed<AtomicSharedPtr<Callback>> m_callback;

// Writes a message, cut so that it still ends its line. Of one that fits, the terminator comes before the line feed
// that is set here.
void MessageOfOneLine(const char* tag, int level, const char* format, va_list args) {
    if (level > Log::GetLevel()) {
        return;
    }
    char message[kLineSize] = {};
    std::vsnprintf(message, kLineSize, format, args);
    message[kLineSize - 2] = '\n';
    if (level == LEVEL_ERROR) {
        ErrorLine::note(message);
    }
    Log::Message(tag, level, "%s", message);
}

// Writes a line whose prefix is there already.
void Output(const char* prefix, const char* tag, bool newLine, const char* format, va_list args) {
    // Let go behind the lock: what a replaced callback holds may log when it dies.
    std::shared_ptr<Callback> callback;
    std::lock_guard lock(m_mutex);
    callback = m_callback->load();
    if (callback) {
        char line[kLineSize] = {};
        const int head = std::snprintf(line, kLineSize, "%s [%s]: ", prefix, tag);
        if (head >= 0 && head < kLineSize) {
            std::vsnprintf(line + head, static_cast<size_t>(kLineSize - head), format, args);
        }
        (*callback)(line);
        return;
    }
    std::printf("%s [%s]: ", prefix, tag);
    std::vprintf(format, args);
    if (newLine) {
        std::putchar('\n');
    }
}

}  // namespace

void Log::Debug(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageOfOneLine(tag, LEVEL_DEBUG, format, args);
    va_end(args);
}

void Log::Info(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageOfOneLine(tag, LEVEL_INFO, format, args);
    va_end(args);
}

void Log::Warn(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageOfOneLine(tag, LEVEL_WARN, format, args);
    va_end(args);
}

void Log::Error(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageOfOneLine(tag, LEVEL_ERROR, format, args);
    va_end(args);
}

void Log::None(const char* /*tag*/, const char* /*format*/, ...) {
}

void Log::Message(const char* tag, int level, const char* format, ...) {
    if (level > GetLevel()) {
        return;
    }
    char prefix[kLineSize] = {};
    GetPrefixInfo(prefix, kLineSize, level);
    va_list args;
    va_start(args, format);
    Output(prefix, tag, /*newLine=*/false, format, args);
    va_end(args);
}

void Log::MessageWithNewLine(const char* tag, int level, const char* format, ...) {
    if (level > GetLevel()) {
        return;
    }
    char prefix[kLineSize] = {};
    GetPrefixInfo(prefix, kLineSize, level);
    va_list args;
    va_start(args, format);
    Output(prefix, tag, /*newLine=*/true, format, args);
    va_end(args);
}

void Log::PrintHex(const char* tag, const unsigned char* data, int length) {
    if (GetLevel() < LEVEL_DEBUG) {
        return;
    }
    constexpr int kBytesPerEntry = 3;
    constexpr int kRoom = kLineSize - 1;
    char text[kLineSize] = {};
    const int count = data ? std::min(length, kRoom / kBytesPerEntry) : 0;
    for (int i = 0; i < count; ++i) {
        // The last entry that fits loses its blank to the terminator.
        const int position = i * kBytesPerEntry;
        std::snprintf(text + position, static_cast<size_t>(kRoom - position), "%02x ", data[i]);
    }
    MessageWithNewLine(tag, LEVEL_DEBUG, "%s", text);
}

void Log::SetLevel(int level) {
    m_iLevel.store(level, std::memory_order_relaxed);
}

int Log::GetLevel() {
    return m_iLevel.load(std::memory_order_relaxed);
}

void Log::SetLogCallback(std::function<void(const char*)> callback) {
    m_callback->store(callback ? std::make_shared<Callback>(std::move(callback)) : nullptr);
}

int Log::GetPrefixInfo(char* buffer, int size, int level) {
    std::lock_guard lock(m_mutex);
    const int64_t nowMs = KelpTime::getTimeMs();
    const auto seconds = static_cast<std::time_t>(nowMs / 1000);
    std::tm local{};
    if (!localtime_r(&seconds, &local)) {
        return 0;
    }
    const int length =
        std::snprintf(buffer, static_cast<size_t>(size), "%.4d-%.2d-%.2d %.2d:%.2d:%.2d.%.3d %d-%.4u %s",
                      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<int>(nowMs % 1000), static_cast<int>(getpid()), GET_TID(), GetLogLevelStr(level));
    return std::clamp(length, 0, size - 1);
}

const char* Log::GetLogLevelStr(int level) {
    constexpr const char* kLabels[] = {"\033[4;31m(FATAL)\033[0m", "\033[1;31m(ERROR)\033[0m",
                                       "\033[0;33m(WARN)\033[0m", "\033[0;39m(Info)\033[0m",
                                       "\033[0;32m(DEBUG)\033[0m"};
    return level >= 0 && level <= LEVEL_DEBUG ? kLabels[level] : "(NULL)";
}

}  // namespace kelp
