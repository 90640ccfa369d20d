#pragma once

// KELP_THREAD_SANITIZER is 1 where the tests are built with that tool, for what it can't follow.
#if defined(__SANITIZE_THREAD__)
#define KELP_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KELP_THREAD_SANITIZER 1
#endif
#endif
#ifndef KELP_THREAD_SANITIZER
#define KELP_THREAD_SANITIZER 0
#endif

namespace kelp::test {

// How many of `rounds` are enough where each takes several times as long, and the tool sees in few what a plain build
// may show in many.
constexpr int roundsWithThreadSanitizer(int rounds) {
    return KELP_THREAD_SANITIZER ? rounds / 4 : rounds;
}

}  // namespace kelp::test
