#include "e2e/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace kelp::test {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void giveUp(const char* what, const char* why) {
    std::fprintf(stderr, "can't have %s: %s\n", what, why);
    std::abort();
}

int msUntil(Clock::time_point end) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
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

ChildProcess::~ChildProcess() {
    kill();
    if (output_ != -1) {
        close(output_);
    }
}

void ChildProcess::start(std::vector<std::string> words) {
    // The command asks the kernel to be killed with its parent, and becomes the program. Called like this, it needs no
    // fork in a process with threads.
    std::vector<std::string> all = {"setpriv", "--pdeathsig", "KILL", "--"};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (auto& word : all) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    if (output_ != -1) {
        close(output_);
    }
    result_ = -1;
    std::array<int, 2> ends{-1, -1};
    posix_spawn_file_actions_t actions;
    int error = pipe2(ends.data(), O_CLOEXEC) == 0 ? posix_spawn_file_actions_init(&actions) : errno;
    if (error == 0) {
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        // Who stops the test program and lets it go on leaves one alone that the test has stopped.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        error = posix_spawnp(&process_, all[0].c_str(), &actions, &attributes, arguments.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    if (error != 0) {
        giveUp(words[0].c_str(), std::strerror(error));
    }
    close(ends[1]);
    output_ = ends[0];
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
    while (process_ != -1 && result_ == -1) {
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
    signal(SIGKILL);
    wait();
}

void ChildProcess::interrupt() {
    signal(SIGINT);
}

void ChildProcess::suspend() {
    signal(SIGSTOP);
}

void ChildProcess::proceed() {
    signal(SIGCONT);
}

void ChildProcess::signal(int number) {
    if (process_ != -1 && result_ == -1) {
        ::kill(process_, number);
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
    if (process.wait() != 0) {
        giveUp(arguments[0].c_str(), "it failed");
    }
    return text;
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
