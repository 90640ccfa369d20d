#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "kelp_player/kelp_player_c.h"
#include "runtime/error_line.h"

// What every function of the C interface stands on: no exception gets past these, and a failure leaves its text.
namespace kelp::c {

// Bytes of an error's text, terminator included; what is longer is cut.
constexpr size_t kErrorSize = 512;

// Why a call failed; null where it didn't.
using Reason = const char*;

// Where the library's own error line isn't written, it is this.
inline constexpr char kRefused[] = "refused; at the log's level error its last line says why";
constexpr Reason kNoText = "a text is null";
constexpr Reason kNoSize = "a struct is null, or its size isn't set";
constexpr Reason kNoCallback = "the callback is null";

// What a call gives that the library refuses and logs.
constexpr Reason unless(bool done) {
    return done ? nullptr : kRefused;
}

// A number of the C interface and the one of the C++ interface that it stands for.
constexpr bool same(int number, int original) {
    return number == original;
}

// The last failure of one handle. Any thread may call any operation; neither allocates.
class LastError {
public:
    // Also the calling thread's.
    void set(const char* operation, const char* reason) noexcept;
    // A copy that is the calling thread's, until it asks for another one.
    const char* get() const noexcept;

private:
    mutable std::mutex mutex_;
    char text_[kErrorSize] = {};
};

// A failure of the calling thread, and of the handle whose `error` isn't null.
void fail(LastError* error, const char* operation, const char* reason) noexcept;

// The last failure of the calling thread, as a copy of the kind above.
const char* threadError() noexcept;

// What `body` returns, or `otherwise` where it throws.
template <typename Value, typename Body>
Value guarded(const char* operation, LastError* error, Value otherwise, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& exception) {
        fail(error, operation, exception.what());
    } catch (...) {
        fail(error, operation, "an exception of no known kind");
    }
    return otherwise;
}

// Where a handle keeps its own last failure; null for the kinds that keep none.
template <typename Handle>
LastError* errorOf(Handle& handle) {
    if constexpr (requires { handle.error; }) {
        return &handle.error;
    } else {
        return nullptr;
    }
}

// What `body` makes of the handle, or `otherwise` for null and where it throws.
template <typename Handle, typename Value, typename Body>
Value valueOf(const char* operation, Handle* handle, Value otherwise, Body&& body) noexcept {
    if (!handle) {
        fail(nullptr, operation, "the handle is null");
        return otherwise;
    }
    return guarded(operation, errorOf(*handle), otherwise, [&] { return body(*handle); });
}

// 1 where `body`, called with the handle, has no reason to give, otherwise 0. For kRefused it is what the library has
// logged meanwhile.
template <typename Handle, typename Body>
int carryOut(const char* operation, Handle* handle, Body&& body) noexcept {
    return valueOf(operation, handle, 0, [&](Handle& present) {
        ErrorLine::forget();
        const Reason reason = body(present);
        if (reason) {
            const bool logged = reason == kRefused && *ErrorLine::get() != '\0';
            fail(errorOf(present), operation, logged ? ErrorLine::get() : reason);
        }
        return reason ? 0 : 1;
    });
}

// The handle that `body` makes, as a unique_ptr, or null where it throws.
template <typename Handle, typename Body>
Handle* made(const char* operation, Body&& body) noexcept {
    return guarded(operation, nullptr, static_cast<Handle*>(nullptr), [&]() -> Handle* { return body().release(); });
}

// Copies of a struct what both sides know; false where there is none, or where it has no size.
template <typename Struct>
bool take(const Struct* from, Struct& to) {
    if (!from || from->size < sizeof(from->size)) {
        return false;
    }
    std::memcpy(&to, from, std::min(from->size, sizeof(to)));
    to.size = sizeof(to);
    return true;
}

// The other way: what the host knows beyond this library becomes 0.
template <typename Struct>
bool fill(Struct from, Struct* to) {
    if (!to || to->size < sizeof(to->size)) {
        return false;
    }
    const size_t size = from.size = to->size;
    if (size > sizeof(from)) {
        std::memset(reinterpret_cast<char*>(to) + sizeof(from), 0, size - sizeof(from));
    }
    std::memcpy(to, &from, std::min(size, sizeof(from)));
    return true;
}

// Calls the host's `release` for `user` when the last copy is gone, also where there is no memory for the first one.
inline std::shared_ptr<void> hold(void* user, kelp_call release) {
    return {user, [release](void* held) {
                if (release) {
                    release(held);
                }
            }};
}

}  // namespace kelp::c
