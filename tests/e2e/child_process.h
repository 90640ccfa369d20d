#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelp::test {

// A program that runs beside the test. It dies with this object, and with the test program however that ends. One
// thread uses it, and outlives it.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess() { kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts `words`, of which the first is the program. Ends the test program if that can't be. Its standard output
    // is read by `readLine`, and goes nowhere from the destructor on.
    void start(std::vector<std::string> words);

    // The next line of its standard output, with the line feed; empty at its end or after `timeoutMs`.
    std::string readLine(int timeoutMs);

    // Ends it at once, as a machine that loses its power.
    void kill();
    // Stops it and lets it go on: meanwhile its connections stay, and nothing comes.
    void suspend();
    void proceed();

private:
    pid_t process_ = -1;  // -1 while none runs
    int output_ = -1;
};

}  // namespace kelp::test
