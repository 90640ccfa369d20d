#include "runtime/base_thread.h"

#include <pthread.h>
#include <unistd.h>

#include <cstring>

#include "kelp_player/log.h"

namespace kelp {

const char* const kTag = "BaseThread";

// The system refuses a longer name instead of cutting it.
constexpr size_t kMaxThreadNameBytes = 15;

void SetThreadName(unsigned long /*threadId*/, const char* name) {
    if (!name) {
        return;
    }
    char cut[kMaxThreadNameBytes + 1] = {};
    std::strncpy(cut, name, kMaxThreadNameBytes);
    pthread_setname_np(pthread_self(), cut);
}

unsigned int GET_TID() {
    return static_cast<unsigned int>(gettid());
}

BaseThread::~BaseThread() {
    if (thread_) {
        requestStop();
        joinThread();
    }
}

bool BaseThread::startThread() {
    Log::Debug(kTag, "[%s] %s\n", name_.c_str(), "startThread");
    thread_ = std::make_unique<std::thread>(&BaseThread::Run, this);
    return thread_ != nullptr;
}

void BaseThread::requestStop() {
    Log::Debug(kTag, "[%s] %s\n", name_.c_str(), "requestStop");
    prepareStop();
}

void BaseThread::prepareStop() {
    stopRequested_ = true;
    endRest();
}

bool BaseThread::joinThread() {
    Log::Debug(kTag, "[%s] %s\n", name_.c_str(), "joinThread");
    if (thread_) {
        thread_->join();
        thread_.reset();
    }
    Log::Debug(kTag, "[%s] %s end\n", name_.c_str(), "joinThread");
    return true;
}

void BaseThread::rest(int ms, const std::function<bool()>& isWanted) {
    rest_.forMs(ms, [&] { return isStopRequested() || (isWanted && isWanted()); });
}

void BaseThread::restUs(int64_t us, const std::function<bool()>& isWanted) {
    rest_.forUs(us, [&] { return isStopRequested() || (isWanted && isWanted()); });
}

}  // namespace kelp
