#include "e2e/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace kelp::test {

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

    int pipe[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    int error = pipe2(pipe, O_CLOEXEC) == 0 ? posix_spawn_file_actions_init(&actions) : errno;
    if (error == 0) {
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
        error = posix_spawnp(&process_, all[0].c_str(), &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
    }
    if (error != 0) {
        std::fprintf(stderr, "can't start %s: %s\n", words[0].c_str(), std::strerror(error));
        std::abort();
    }
    close(pipe[1]);
    output_ = pipe[0];
}

std::string ChildProcess::readLine(int timeoutMs) {
    std::string line;
    pollfd waiting{output_, POLLIN, 0};
    while (line.empty() || line.back() != '\n') {
        char byte = 0;
        if (poll(&waiting, 1, timeoutMs) != 1 || read(output_, &byte, 1) != 1) {
            return "";
        }
        line += byte;
    }
    return line;
}

void ChildProcess::kill() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        close(output_);
        process_ = -1;
    }
}

void ChildProcess::suspend() {
    ::kill(process_, SIGSTOP);
}

void ChildProcess::proceed() {
    ::kill(process_, SIGCONT);
}

}  // namespace kelp::test
