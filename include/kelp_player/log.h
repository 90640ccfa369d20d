#pragma once

#include <functional>

#include "kelp_player/export.h"

#if defined(__GNUC__)
#define KELP_PRINTF_FORMAT(text, first) __attribute__((format(printf, text, first)))
#else
#define KELP_PRINTF_FORMAT(text, first)
#endif

namespace kelp {

// The library's log, one for the process. All operations are static and may be called from any thread, also from
// constructors and destructors of static objects.
//
// A line goes to the host's callback if there is one, else to standard output. It reads: local date and time with
// milliseconds, process id and thread id, the level's label in terminal colours, the caller's tag in square brackets,
// a colon and the message:
//
//     2024-03-01 13:05:09.042 4711-4715 (Info) [StreamParser]: Run...
//
// Messages carry their own line feed. Writing a line allocates no memory; lines of different threads don't mix.
class KELP_PLAYER_API Log {
public:
    // Write one line at level 4, 3, 2 and 1. `format` and what follows are as printf takes them; a message of 1022
    // characters or more is cut to 1022 and a line feed. Nothing is formatted when the level is not written.
    static void Debug(const char* tag, const char* format, ...) KELP_PRINTF_FORMAT(2, 3);
    static void Info(const char* tag, const char* format, ...) KELP_PRINTF_FORMAT(2, 3);
    static void Warn(const char* tag, const char* format, ...) KELP_PRINTF_FORMAT(2, 3);
    static void Error(const char* tag, const char* format, ...) KELP_PRINTF_FORMAT(2, 3);

    // Does nothing; for a line that is switched off where it stands.
    static void None(const char* tag, const char* format, ...) KELP_PRINTF_FORMAT(2, 3);

    // Writes one line at `level`, 0 (fatal) to 4 (debug), of any length on the console.
    static void Message(const char* tag, int level, const char* format, ...) KELP_PRINTF_FORMAT(3, 4);

    // The same, and adds a line feed on the console, but not for a callback.
    static void MessageWithNewLine(const char* tag, int level, const char* format, ...) KELP_PRINTF_FORMAT(3, 4);

    // Writes the `length` bytes at `data` in hexadecimal, the first 341 of them at most, at level 4 and as
    // MessageWithNewLine does.
    static void PrintHex(const char* tag, const unsigned char* data, int length);

    // The highest level that is written: 0 fatal, 1 error, 2 warning, 3 info (the default, and what the first player of
    // the process sets), 4 debug; below 0 none.
    static void SetLevel(int level);
    static int GetLevel();

    // Sends every line to `callback`, as a text of at most 1023 characters that is valid during the call; the rest of
    // a longer line is lost, its line feed included. An empty function returns the output to the console. The callback
    // runs on the thread that logs, one call at a time. It must not throw; one that logs, calls into a player or waits
    // for a thread that logs may wait for ever.
    //
    // This doesn't wait: a line that another thread is writing may still go to the callback before, also after this has
    // returned. So that one should own what it uses (capture a std::shared_ptr): it is kept until its last call is
    // over, and destroyed on that thread or on this one. A line that the host itself writes after this returned is a
    // barrier: behind it the callback before is not called any more.
    static void SetLogCallback(std::function<void(const char*)> callback);

private:
    static int GetPrefixInfo(char* buffer, int size, int level);
    static const char* GetLogLevelStr(int level);
};

}  // namespace kelp
