#include "e2e/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace kelp::test {

namespace {

using Clock = std::chrono::steady_clock;

int msUntil(Clock::time_point end) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
}

// A socket of `socketType` on the loopback address, -1 if the port is taken. With port 0 the system chooses.
int boundSocket(int socketType, int& port) {
    const int made = socket(AF_INET, socketType | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(made, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        getsockname(made, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(made);
        return -1;
    }
    port = ntohs(address.sin_port);
    return made;
}

// What the system's tables of sockets say of a port: the bytes that wait there to be read, -1 if nobody has it open.
int64_t queuedBytes(int socketType, int port) {
    std::array<char, 16> wanted{};
    std::snprintf(wanted.data(), wanted.size(), ":%04X", static_cast<unsigned int>(port));
    for (const char* version : {"", "6"}) {
        std::ifstream table(std::string("/proc/net/") + (socketType == SOCK_STREAM ? "tcp" : "udp") + version);
        std::string line;
        while (std::getline(table, line)) {
            std::istringstream words(line);
            std::string slot, local, remote, state, queues;
            words >> slot >> local >> remote >> state >> queues;
            if (local.ends_with(wanted.data()) && (socketType == SOCK_DGRAM || state == "0A")) {
                return std::stoll(queues.substr(queues.find(':') + 1), nullptr, 16);
            }
        }
    }
    return -1;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    std::vector<char*> words;
    for (const auto& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(ends[1], STDOUT_FILENO);
        execvp(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    output_ = ends[0];
}

ChildProcess::~ChildProcess() {
    kill();
    wait();
    close(output_);
}

std::string ChildProcess::readLine(int timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string line;
    while (true) {
        pollfd waiting{output_, POLLIN, 0};
        char byte = 0;
        if (poll(&waiting, 1, std::max(0, msUntil(end))) <= 0 || read(output_, &byte, 1) != 1 || byte == '\n') {
            return line;
        }
        line += byte;
    }
}

int ChildProcess::wait(int timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (result_ == -1) {
        int status = 0;
        if (waitpid(process_, &status, WNOHANG) == process_) {
            result_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (msUntil(end) <= 0) {
            return -1;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return result_;
}

void ChildProcess::kill() {
    if (result_ == -1) {
        ::kill(process_, SIGKILL);
    }
}

void ChildProcess::interrupt() {
    if (result_ == -1) {
        ::kill(process_, SIGINT);
    }
}

void ChildProcess::freeze() {
    if (result_ == -1) {
        ::kill(process_, SIGSTOP);
    }
}

std::string outputOf(const std::vector<std::string>& arguments) {
    ChildProcess process(arguments);
    std::string text;
    while (true) {
        const std::string line = process.readLine();
        if (line.empty() && process.wait(0) != -1) {
            break;
        }
        text += line + "\n";
    }
    EXPECT_EQ(process.wait(), 0) << arguments[0];
    return text;
}

int freePortPair(int socketType) {
    for (int i = 0; i < 1000; ++i) {
        int first = 0;
        const int socket = boundSocket(socketType, first);
        int second = first + 1;
        const int next = boundSocket(socketType, second);
        close(socket);
        if (next != -1) {
            close(next);
            return first;
        }
    }
    ADD_FAILURE() << "no two free ports in a row";
    return 0;
}

bool waitForPort(int socketType, int port, int timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (queuedBytes(socketType, port) == -1) {
        if (msUntil(end) <= 0) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int64_t waitingBytes(int port) {
    return queuedBytes(SOCK_DGRAM, port);
}

}  // namespace kelp::test
