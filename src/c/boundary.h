#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelp_player/kelp_player_c.h"
#include "runtime/error_line.h"

// What every function of the C interface stands on: no exception gets past these, and a failure leaves its text.
namespace kelp::c {

// Bytes of an error's text, terminator included; what is longer is cut, between two characters.
constexpr size_t kErrorSize = 512;

// Where the library's own error line isn't written, it is this.
inline constexpr char kRefused[] = "refused; at the log's level error its last line says why";
inline constexpr char kNoText[] = "a text is null";
inline constexpr char kNoSize[] = "a struct is null, or its size isn't set";
inline constexpr char kNoCallback[] = "the callback is null";

// Throws `reason`, for the functions below to note, unless `fits`.
inline void require(bool fits, const char* reason) {
    if (!fits) {
        throw std::invalid_argument(reason);
    }
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

// The last failure of a handle, and for null that of the calling thread.
template <typename Handle>
const char* errorText(const Handle* handle) noexcept {
    return handle ? handle->error.get() : threadError();
}

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

// What `body` makes of the handle, or `otherwise` for null and where it throws.
template <typename Handle, typename Value, typename Body>
Value valueOf(const char* operation, Handle* handle, Value otherwise, Body&& body) noexcept {
    if (!handle) {
        fail(nullptr, operation, "the handle is null");
        return otherwise;
    }
    return guarded(operation, &handle->error, otherwise, [&] { return body(*handle); });
}

// 1 where `body`, called with the handle, returns true or nothing, otherwise 0. For false the reason is what the
// library has logged meanwhile.
template <typename Handle, typename Body>
int carryOut(const char* operation, Handle* handle, Body&& body) noexcept {
    return valueOf(operation, handle, 0, [&](Handle& present) {
        ErrorLine::forget();
        if constexpr (std::is_void_v<std::invoke_result_t<Body, Handle&>>) {
            body(present);
        } else {
            static_assert(std::is_same_v<std::invoke_result_t<Body, Handle&>, bool>);
            if (!body(present)) {
                const char* const logged = ErrorLine::get();
                fail(&present.error, operation, *logged != '\0' ? logged : kRefused);
                return 0;
            }
        }
        return 1;
    });
}

// The handle that `body` makes, as a unique_ptr, or null where it throws.
template <typename Handle, typename Body>
Handle* made(const char* operation, Body&& body) noexcept {
    return guarded(operation, nullptr, static_cast<Handle*>(nullptr), [&]() -> Handle* { return body().release(); });
}

// A text that a call can't do without.
inline const char* needed(const char* text) {
    require(text, kNoText);
    return text;
}

// A struct that a call can't do without: what both sides know of it, and 0 for what the host doesn't.
template <typename Struct>
Struct needed(const Struct* from) {
    require(from && from->size >= sizeof(from->size), kNoSize);
    Struct to{};
    std::memcpy(&to, from, std::min(from->size, sizeof(to)));
    to.size = sizeof(to);
    return to;
}

// One that may be null, for nothing but zeros.
template <typename Struct>
Struct neededUnlessNull(const Struct* from) {
    return from ? needed(from) : Struct{};
}

// The other way: what the host knows beyond this library becomes 0.
template <typename Struct>
void fill(Struct from, Struct* to) {
    require(to && to->size >= sizeof(to->size), kNoSize);
    const size_t size = from.size = to->size;
    if (size > sizeof(from)) {
        std::memset(reinterpret_cast<char*>(to) + sizeof(from), 0, size - sizeof(from));
    }
    std::memcpy(to, &from, std::min(size, sizeof(from)));
}

// Structs of the C interface, each made of one of the C++ interface, and what points at each: an array of structs could
// not grow.
template <typename Struct>
struct Translation {
    template <typename Original>
    Translation(const std::vector<Original>& originals, Struct (*translated)(const Original&)) {
        structs.reserve(originals.size());
        for (const auto& original : originals) {
            pointers.push_back(&structs.emplace_back(translated(original)));
        }
    }

    std::vector<Struct> structs;
    std::vector<const Struct*> pointers;
};

// Calls one of the host's callbacks, unless it is null.
template <typename... Parameters, typename... Arguments>
void tell(void (*call)(void*, Parameters...), void* user, Arguments... arguments) {
    if (call) {
        call(user, arguments...);
    }
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
