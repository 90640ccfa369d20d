#include "input/open_sessions.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "input/stream_parser.h"
#include "runtime/never_destroyed.h"

namespace kelp {

namespace {

constexpr std::chrono::seconds kLongestWait{1};
constexpr std::chrono::milliseconds kLook{10};  // until one that was busy is asked again

struct Sessions {
    // Taken with a parser's own mutex held; who holds this one only tries that.
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<StreamParser*> parsers;  // guarded by mutex
    std::atomic<pid_t> process{0};
};

Sessions& sessions() {
    static NeverDestroyed<Sessions> all;
    return *all;
}

void leaveAll() {
    Sessions& all = sessions();
    if (getpid() != all.process) {
        return;
    }
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    std::unique_lock lock(all.mutex);
    while (!all.parsers.empty() && std::chrono::steady_clock::now() < end) {
        std::erase_if(all.parsers, [](StreamParser* parser) { return parser->leave(); });
        all.changed.wait_for(lock, kLook, [&] { return all.parsers.empty(); });
    }
}

}  // namespace

void OpenSessions::add(StreamParser& parser) {
    Sessions& all = sessions();
    {
        std::lock_guard lock(all.mutex);
        // What a process that was forked from has open is its own.
        if (all.process.exchange(getpid()) != getpid()) {
            all.parsers.clear();
        }
        all.parsers.push_back(&parser);
    }
    // Asked for with the first one: it runs before the destruction of what the host made earlier.
    [[maybe_unused]] static const int asked = std::atexit(leaveAll);
}

void OpenSessions::remove(StreamParser& parser) {
    Sessions& all = sessions();
    std::lock_guard lock(all.mutex);
    std::erase(all.parsers, &parser);
    all.changed.notify_all();
}

}  // namespace kelp
