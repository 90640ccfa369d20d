#include "runtime/error_line.h"

#include <cstring>

#include "runtime/utf8.h"

namespace kelp {

namespace {

constexpr size_t kSize = 384;
thread_local char t_line[kSize] = {};

}  // namespace

void ErrorLine::note(const char* message) {
    copyReadableUtf8(message, t_line, kSize);
    t_line[std::strcspn(t_line, "\n")] = '\0';
}

void ErrorLine::forget() {
    t_line[0] = '\0';
}

const char* ErrorLine::get() {
    return t_line;
}

}  // namespace kelp
