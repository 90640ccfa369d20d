// The library as a whole, and its log.
#include "c/boundary.h"
#include "kelp_player/log.h"
#include "kelp_player/types.h"
#include "runtime/utf8.h"

using namespace kelp::c;

namespace {

// A line may name a source whose path isn't UTF-8. The log's own lines have 1024 bytes at most.
void tellLine(void (*call)(void* user, const char* line), void* user, const char* line) {
    char readable[4096];
    kelp::copyReadableUtf8(line, readable, sizeof(readable));
    call(user, readable);
}

}  // namespace

const char* kelp_version(void) {
    return KELP_PLAYER_VERSION;
}

const char* kelp_last_error(void) {
    return threadError();
}

int kelp_log_set_callback(void (*call)(void* user, const char* line), void* user, kelp_call release) {
    return guarded(__func__, nullptr, 0, [&] {
        const auto held = hold(user, release);
        if (call) {
            kelp::Log::SetLogCallback([call, held](const char* line) { tellLine(call, held.get(), line); });
        } else {
            kelp::Log::SetLogCallback({});
        }
        return 1;
    });
}

void kelp_log_set_level(int level) {
    kelp::Log::SetLevel(level);
}

int kelp_log_get_level(void) {
    return kelp::Log::GetLevel();
}

int kelp_log_write(int level, const char* tag, const char* text) {
    return guarded(__func__, nullptr, 0, [&] {
        require(level >= KELP_LOG_FATAL, "there is no such level");
        kelp::Log::Message(needed(tag), level, "%s", needed(text));
        return 1;
    });
}
