#include "support/xvfb_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kelp::test {

namespace {

constexpr char kLock[] = "/tmp/.kelp_test_xvfb.lock";  // start_xvfb.sh has the same
constexpr int kStartMs = 60'000;

// Two servers that look for a free display at the same time may each get a half of one: one its socket in the file
// system, the other the abstract one. Held while a server starts.
class StartLock {
public:
    StartLock() {
        fd_ = open(kLock, O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            fd_ = open(kLock, O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
            fchmod(fd_, 0666);
        }
        flock(fd_, LOCK_EX);
    }
    ~StartLock() { close(fd_); }
    StartLock(const StartLock&) = delete;
    StartLock& operator=(const StartLock&) = delete;

private:
    int fd_ = -1;
};

// Writes the number of the display to `fd` when it is ready.
[[noreturn]] void runServer(int fd, const std::string& size) {
    // SDL ends the process by itself when a connection breaks: the server goes with it.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    const std::string number = std::to_string(fd);
    execlp("Xvfb", "Xvfb", "-displayfd", number.c_str(), "-screen", "0", size.c_str(), "-nolisten", "tcp", "-noreset",
           static_cast<char*>(nullptr));
    _exit(127);
}

std::string readNumber(int fd) {
    std::string number;
    pollfd ready{fd, POLLIN, 0};
    char digit = 0;
    while (poll(&ready, 1, kStartMs) > 0 && read(fd, &digit, 1) == 1 && digit != '\n') {
        number += digit;
    }
    return number;
}

}  // namespace

XvfbProcess::XvfbProcess(int width, int height) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height) + "x24";
    const StartLock lock;
    int ends[2];
    if (pipe(ends) != 0) {
        return;
    }
    pid_ = fork();
    if (pid_ == 0) {
        close(ends[0]);
        runServer(ends[1], size);
    }
    close(ends[1]);
    const std::string number = readNumber(ends[0]);
    close(ends[0]);
    if (!number.empty()) {
        display_ = ":" + number;
    }
}

XvfbProcess::~XvfbProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

}  // namespace kelp::test
