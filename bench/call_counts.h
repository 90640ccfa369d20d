#pragma once

#include <cstdint>
#include <vector>

namespace kelp::bench {

// Whose code makes a call, by the module that the call returns to.
enum class Caller { Library, FFmpeg, Sdl, SoundTouch, Other };
constexpr int kCallers = 5;

const char* nameOf(Caller caller);

struct Calls {
    int64_t allocations = 0;  // on the heap; a reallocation is one, too
    int64_t copies = 0;       // that are calls: the compiler writes small ones of a known size in place
    int64_t copiedBytes = 0;
    int64_t locks = 0;
    int64_t rests = 0;  // sleeps, and waits for a condition
};

// The rests that the library's code took on one thread.
struct ThreadRests {
    char name[16] = {};
    int64_t sleeps = 0;
    int shortestMs = 0;  // as asked for, like the next
    int longestMs = 0;
    int64_t waits = 0;  // for a condition
};

enum class Site : uintptr_t { Allocation = 1, Copy, Lock };

// A place in the library's code that calls.
struct SiteCalls {
    Site kind{};
    uintptr_t offset = 0;  // in the file of the library; of the instruction behind the call
    int64_t calls = 0;
};

// Counts what the modules of the process ask of the heap, of memcpy and memmove, of mutexes and of sleeping. The
// program that links this has such functions of its own, which count and pass on to those that it would have had.
//
// Counting takes no lock and no memory, so that it never counts itself. A picture's way through libswscale, asked for
// by the library, counts as one copy of the library's with the bytes of the outcome, and nothing inside it counts.
class CallCounts {
public:
    // Looks where the modules lie; those that come later count as others. False if the library isn't among them.
    static bool findModules();

    // Once each.
    static void start();
    static void stop();

    static Calls of(Caller caller);
    // Packets that the library has read.
    static int64_t packets();
    static std::vector<ThreadRests> threads();
    // The most frequent ones first.
    static std::vector<SiteCalls> sites();
};

}  // namespace kelp::bench
