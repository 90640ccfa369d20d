#include "c/boundary.h"

#include <cstdio>

#include "runtime/utf8.h"

namespace kelp::c {

namespace {

thread_local char t_last[kErrorSize] = {};   // the thread's last failure
thread_local char t_given[kErrorSize] = {};  // what it has asked for

void note(const char* operation, const char* reason) {
    const auto length = static_cast<size_t>(std::snprintf(t_last, kErrorSize, "%s: ", operation));
    copyReadableUtf8(reason, t_last + length, kErrorSize - length);
}

}  // namespace

void LastError::set(const char* operation, const char* reason) noexcept {
    note(operation, reason);
    std::lock_guard lock(mutex_);
    std::memcpy(text_, t_last, kErrorSize);
}

const char* LastError::get() const noexcept {
    std::lock_guard lock(mutex_);
    std::memcpy(t_given, text_, kErrorSize);
    return t_given;
}

void fail(LastError* error, const char* operation, const char* reason) noexcept {
    if (error) {
        error->set(operation, reason);
    } else {
        note(operation, reason);
    }
}

const char* threadError() noexcept {
    std::memcpy(t_given, t_last, kErrorSize);
    return t_given;
}

}  // namespace kelp::c
