#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

// A command that runs beside the test: it is killed and waited for when this object goes, and dies with the test
// program. Its error output is the test program's.
class ChildProcess {
public:
    // The first of `arguments` is the command, looked up as a shell does.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of its output without the line feed; what there is at the end of the output or after `timeoutMs`.
    std::string readLine(int timeoutMs = 30000);
    // Waits for its end: the exit code, 128 and the signal's number, or -1 after `timeoutMs`.
    int wait(int timeoutMs = 60000);
    bool running() { return wait(0) == -1; }
    void kill();
    // Asks it to end, as Ctrl-C does.
    void interrupt();
    // Stops it where it is; only `kill` ends it then.
    void freeze();

private:
    pid_t process_ = -1;
    int output_ = -1;  // where its output is read
    int result_ = -1;  // of `wait`, once it has ended
};

// All that a command writes to its output.
std::string outputOf(const std::vector<std::string>& arguments);

// A port of the loopback address that nobody uses, chosen by the system; the next one is free too.
int freePortPair(int socketType);

// Waits until some process has the port open, as a listening connection (SOCK_STREAM) or for datagrams (SOCK_DGRAM),
// without touching it.
bool waitForPort(int socketType, int port, int timeoutMs = 30000);

// How much waits in the system for whoever receives datagrams at the port, in bytes; -1 if nobody does.
int64_t waitingBytes(int port);

}  // namespace kelp::test
