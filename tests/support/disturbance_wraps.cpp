// The functions through which our code locks, waits, notifies and starts threads, each with a disturbance before and
// after it. The linker puts them in (kelp_disturb in cmake/KelpTargets.cmake); the sanitizer sees the calls as ever.
// They are weak: a test that replaces one of them itself keeps its own. They are visible, since the linker takes them
// for what libraries refer to as well.
#include <pthread.h>
#include <time.h>

#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "support/disturbance.h"

#define KELP_WRAP extern "C" __attribute__((weak, visibility("default")))

namespace {

using kelp::test::disturb;
using kelp::test::DisturbedPoint;

// Calls `function` with a disturbance on either side.
template <typename Function, typename... Arguments>
auto disturbed(DisturbedPoint before, DisturbedPoint after, Function* function, Arguments... arguments) {
    disturb(before);
    const auto result = function(arguments...);
    disturb(after);
    return result;
}

// A new thread that begins late. Not by operator new: tests count what that gives, and let it fail.
class LateState final : public std::thread::_State {
public:
    explicit LateState(std::unique_ptr<std::thread::_State> state) : state_(std::move(state)) {}

    void _M_run() override {
        disturb(DisturbedPoint::ThreadStart);
        state_->_M_run();
    }

    static void* operator new(size_t size) { return std::malloc(size); }
    static void operator delete(void* memory) { std::free(memory); }

private:
    std::unique_ptr<std::thread::_State> state_;
};

}  // namespace

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_mutex_trylock(pthread_mutex_t*);
int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t*);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t*);
int __real_pthread_rwlock_unlock(pthread_rwlock_t*);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
int __real_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
void __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable*,
                                                                      std::unique_lock<std::mutex>&);
void __real__ZNSt18condition_variable10notify_oneEv(std::condition_variable*);
void __real__ZNSt18condition_variable10notify_allEv(std::condition_variable*);
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread*, std::unique_ptr<std::thread::_State>, void (*)());
}

KELP_WRAP int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return disturbed(DisturbedPoint::Lock, DisturbedPoint::Lock, __real_pthread_mutex_lock, mutex);
}

KELP_WRAP int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    return disturbed(DisturbedPoint::Lock, DisturbedPoint::Lock, __real_pthread_mutex_trylock, mutex);
}

KELP_WRAP int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return disturbed(DisturbedPoint::Unlock, DisturbedPoint::Unlock, __real_pthread_mutex_unlock, mutex);
}

KELP_WRAP int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    return disturbed(DisturbedPoint::Lock, DisturbedPoint::Lock, __real_pthread_rwlock_rdlock, lock);
}

KELP_WRAP int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    return disturbed(DisturbedPoint::Lock, DisturbedPoint::Lock, __real_pthread_rwlock_wrlock, lock);
}

KELP_WRAP int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
    return disturbed(DisturbedPoint::Unlock, DisturbedPoint::Unlock, __real_pthread_rwlock_unlock, lock);
}

// A waiter returns with its mutex, so the second disturbance is that of a lock.
KELP_WRAP int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* until) {
    return disturbed(DisturbedPoint::Wait, DisturbedPoint::Lock, __real_pthread_cond_timedwait, condition, mutex,
                     until);
}

KELP_WRAP int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                            const timespec* until) {
    return disturbed(DisturbedPoint::Wait, DisturbedPoint::Lock, __real_pthread_cond_clockwait, condition, mutex, clock,
                     until);
}

KELP_WRAP void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* condition,
                                                                                std::unique_lock<std::mutex>& lock) {
    disturb(DisturbedPoint::Wait);
    __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(condition, lock);
    disturb(DisturbedPoint::Lock);
}

KELP_WRAP void __wrap__ZNSt18condition_variable10notify_oneEv(std::condition_variable* condition) {
    disturb(DisturbedPoint::Notify);
    __real__ZNSt18condition_variable10notify_oneEv(condition);
    disturb(DisturbedPoint::Notify);
}

KELP_WRAP void __wrap__ZNSt18condition_variable10notify_allEv(std::condition_variable* condition) {
    disturb(DisturbedPoint::Notify);
    __real__ZNSt18condition_variable10notify_allEv(condition);
    disturb(DisturbedPoint::Notify);
}

// The new thread begins late, or its parent goes on late.
KELP_WRAP void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, std::unique_ptr<std::thread::_State> state, void (*depend)()) {
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
        thread, std::unique_ptr<std::thread::_State>(new LateState(std::move(state))), depend);
    disturb(DisturbedPoint::ThreadStart);
}
