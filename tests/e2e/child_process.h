#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

// A command that runs beside the test: it is killed and waited for when this object goes, and dies with the thread that
// started it. Its error output is the test program's. One thread uses it.
class ChildProcess {
public:
    ChildProcess() = default;
    explicit ChildProcess(const std::vector<std::string>& words) { start(words); }
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `words`, of which the first is the command, looked up as a shell does; again once the one before has
    // ended. Ends the test program if that can't be.
    void start(std::vector<std::string> words);

    // The next line of its output without the line feed; what there is at the end of the output or after `timeoutMs`.
    std::string readLine(int timeoutMs = 30000);
    // Waits for its end: the exit code, 128 and the signal's number, or -1 after `timeoutMs`.
    int wait(int timeoutMs = 60000);
    bool running() { return wait(0) == -1; }
    // Ends it at once, as a machine that loses its power.
    void kill();
    // Asks it to end, as Ctrl-C does.
    void interrupt();
    // Stops it and lets it go on: meanwhile its connections stay, and nothing comes.
    void suspend();
    void proceed();
    void signal(int number);

private:
    pid_t process_ = -1;  // -1 before the first start
    int output_ = -1;     // where its output is read
    int result_ = -1;     // of `wait`, once it has ended
};

// All that a command writes to its output.
std::string outputOf(const std::vector<std::string>& arguments);

// Waits until some process has the port open, as a listening connection (SOCK_STREAM) or for datagrams (SOCK_DGRAM),
// without touching it.
bool waitForPort(int socketType, int port, int timeoutMs = 30000);

// How much waits in the system for whoever receives datagrams at the port, in bytes; -1 if nobody does.
int64_t waitingBytes(int port);

}  // namespace kelp::test
