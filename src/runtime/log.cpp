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

// Formats a message into a zeroed buffer, cut so that it still ends its line. Of a message that fits, the terminator
// comes before the line feed that is set here.
void FormatLine(char (&message)[kLineSize], const char* format, va_list args) {
    std::vsnprintf(message, kLineSize, format, args);
    message[kLineSize - 2] = '\n';
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
    if (m_iLevel.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    char message[kLineSize] = {};
    va_list args;
    va_start(args, format);
    FormatLine(message, format, args);
    va_end(args);
    Message(tag, LEVEL_DEBUG, "%s", message);
}

void Log::Info(const char* tag, const char* format, ...) {
    if (m_iLevel.load(std::memory_order_relaxed) < LEVEL_INFO) {
        return;
    }
    char message[kLineSize] = {};
    va_list args;
    va_start(args, format);
    FormatLine(message, format, args);
    va_end(args);
    Message(tag, LEVEL_INFO, "%s", message);
}

void Log::Warn(const char* tag, const char* format, ...) {
    if (m_iLevel.load(std::memory_order_relaxed) < LEVEL_WARN) {
        return;
    }
    char message[kLineSize] = {};
    va_list args;
    va_start(args, format);
    FormatLine(message, format, args);
    va_end(args);
    Message(tag, LEVEL_WARN, "%s", message);
}

void Log::Error(const char* tag, const char* format, ...) {
    if (m_iLevel.load(std::memory_order_relaxed) < LEVEL_ERROR) {
        return;
    }
    char message[kLineSize] = {};
    va_list args;
    va_start(args, format);
    FormatLine(message, format, args);
    va_end(args);
    Message(tag, LEVEL_ERROR, "%s", message);
}

void Log::None(const char* /*tag*/, const char* /*format*/, ...) {
}

void Log::Message(const char* tag, int level, const char* format, ...) {
    if (level > m_iLevel.load(std::memory_order_relaxed)) {
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
    if (level > m_iLevel.load(std::memory_order_relaxed)) {
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
    if (m_iLevel.load(std::memory_order_relaxed) < LEVEL_DEBUG) {
        return;
    }
    constexpr int kBytesPerEntry = 3;
    char text[kLineSize];
    int position = 0;
    for (int i = 0; data && i < length; ++i) {
        const int remaining = kLineSize - 1 - position;
        if (remaining < kBytesPerEntry) {
            break;
        }
        // The last entry that fits loses its blank to the terminator.
        std::snprintf(text + position, static_cast<size_t>(remaining), "%02x ", data[i]);
        position += kBytesPerEntry;
    }
    text[position] = '\0';
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
    switch (level) {
        case 0:
            return "\033[4;31m(FATAL)\033[0m";
        case LEVEL_ERROR:
            return "\033[1;31m(ERROR)\033[0m";
        case LEVEL_WARN:
            return "\033[0;33m(WARN)\033[0m";
        case LEVEL_INFO:
            return "\033[0;39m(Info)\033[0m";
        case LEVEL_DEBUG:
            return "\033[0;32m(DEBUG)\033[0m";
        default:
            return "(NULL)";
    }
}

}  // namespace kelp
