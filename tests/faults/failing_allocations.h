#pragma once

#include <cstdint>

namespace kelp::test {

// Makes one allocation fail; the program that links this replaces operator new and the library functions below.
class FailingAllocations {
public:
    // Which ones are counted: operator new on the threads that are inside a Window; operator new on all threads that
    // were never inside one; the functions of the libraries that our own code calls, on any thread, each of which
    // then answers as if it had no memory; or what FFmpeg's own code asks the system for, on any thread.
    enum class Of { Nothing, WindowThreads, OtherThreads, Libraries, InsideFFmpeg };

    // From now on, the `number`-th, from 1, fails; 0 for none.
    static void arm(Of which, int64_t number);
    static void disarm() { arm(Of::Nothing, 0); }
    // How many there were since `arm`.
    static int64_t count();
    // Whether the one that is to fail did.
    static bool failed();
    // What failed since `arm`: the name of the libraries' function, or "new (std::nothrow)"; empty if neither did.
    static const char* failedCall();
    // The addresses of the calls that lead to the one inside FFmpeg that failed, innermost first; how many.
    static int callsOfFailure(void** calls, int size);
    // Whether `address` lies in the code of one of FFmpeg's libraries. Takes no lock and no memory, but knows them only
    // from the first `arm` on.
    static bool isInFFmpeg(const void* address);

    // The calling thread's allocations count for as long as this lives.
    class Window {
    public:
        Window();
        ~Window();
        Window(const Window&) = delete;
        Window& operator=(const Window&) = delete;
    };
};

}  // namespace kelp::test
