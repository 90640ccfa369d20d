#include "runtime/base_thread.h"

#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

const char* const kTag = "BaseThread";

// The system refuses a longer name instead of cutting it.
constexpr size_t kMaxThreadNameBytes = 15;

}  // namespace

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

BaseThread::BaseThread(std::string name) : name_(std::move(name)) {
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

bool BaseThread::isStopRequested() {
    return stopRequested_;
}

void BaseThread::resetStopRequest() {
    stopRequested_ = false;
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

void BaseThread::setName(const char* name) {
    SetThreadName(static_cast<unsigned long>(-1), name);
}

void BaseThread::sleepMilliSeconds(unsigned int ms) {
    KelpTime::sleepMs(static_cast<int>(ms));
}

void BaseThread::sleepSeconds(unsigned int s) {
    KelpTime::sleepMs(static_cast<int>(s * 1000U));
}

void BaseThread::rest(int ms, const std::function<bool()>& isWanted) {
    rest_.forMs(ms, [&] { return isStopRequested() || (isWanted && isWanted()); });
}

void BaseThread::endRest() {
    rest_.end();
}

}  // namespace kelp
