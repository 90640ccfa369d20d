#include "runtime/error_line.h"

#include <algorithm>
#include <cstring>

namespace kelp {

namespace {

constexpr size_t kSize = 384;
thread_local char t_line[kSize] = {};

}  // namespace

void ErrorLine::note(const char* message) {
    const size_t length = std::min(std::strcspn(message, "\n"), kSize - 1);
    std::memcpy(t_line, message, length);
    t_line[length] = '\0';
}

void ErrorLine::forget() {
    t_line[0] = '\0';
}

const char* ErrorLine::get() {
    return t_line;
}

}  // namespace kelp
