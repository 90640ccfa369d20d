#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kelp::test {

// What the classes under test ask of the system's sockets. Every call is passed on, unless it is named in `failing`.
// Calls that set a socket up are noted as "setsockopt 6 1", with the option and its value; the sockets of the tests
// themselves too.
struct SocketCalls {
    std::mutex mutex;
    std::vector<std::string> names;   // guarded by mutex
    std::set<std::string> failing;    // guarded by mutex
    std::atomic<int> lastSocket{-1};  // the number of the last one opened
};

SocketCalls& socketCalls();
void resetSocketCalls();

// Names a call, like "bind" or "setsockopt 8 400000000", that is to fail from now on.
void failSocketCall(const std::string& call);
std::vector<std::string> socketCallNames();

}  // namespace kelp::test
