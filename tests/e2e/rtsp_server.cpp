#include "e2e/rtsp_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace kelp::test {

namespace {

// The system's own: another Python may lack the bindings.
constexpr const char* kPython = "/usr/bin/python3";
constexpr int kStartLimitMs = 60000;

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "rtsp server: %s\n", what);
    std::abort();
}

// The first line that comes out of `pipe`.
std::string readLine(int pipe) {
    std::string line;
    pollfd waiting{pipe, POLLIN, 0};
    while (line.empty() || line.back() != '\n') {
        char byte = 0;
        if (poll(&waiting, 1, kStartLimitMs) != 1 || read(pipe, &byte, 1) != 1) {
            giveUp("it doesn't start; are Debian's gir1.2-gst-rtsp-server-1.0, python3-gi and the plugins there?");
        }
        line += byte;
    }
    return line;
}

}  // namespace

RtspServer::RtspServer(Files files, int port) : files_(std::move(files)), port_(port) {
    start();
}

RtspServer::~RtspServer() {
    kill();
}

std::string RtspServer::url(const std::string& name) const {
    return "rtsp://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

void RtspServer::start() {
    std::vector<std::string> words = {kPython,  KELP_RTSP_SERVER_SCRIPT, "--parent", std::to_string(getpid()),
                                      "--port", std::to_string(port_)};
    for (const auto& [name, path] : files_) {
        words.push_back("--file");
        words.push_back(name + "=" + path);
    }
    std::vector<char*> arguments;
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    int pipe[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    if (pipe2(pipe, O_CLOEXEC) != 0 || posix_spawn_file_actions_init(&actions) != 0) {
        giveUp(std::strerror(errno));
    }
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    // The script itself asks to be killed when this program ends.
    if (posix_spawn(&process_, kPython, &actions, nullptr, arguments.data(), environ) != 0) {
        giveUp(kPython);
    }
    posix_spawn_file_actions_destroy(&actions);
    close(pipe[1]);
    if (std::sscanf(readLine(pipe[0]).c_str(), "ready %d", &port_) != 1) {
        giveUp("no port");
    }
    close(pipe[0]);
}

void RtspServer::kill() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        process_ = -1;
    }
}

void RtspServer::suspend() {
    ::kill(process_, SIGSTOP);
}

void RtspServer::proceed() {
    ::kill(process_, SIGCONT);
}

}  // namespace kelp::test
