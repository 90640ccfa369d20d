#pragma once

namespace kelp {

// The last message that Log::Error has written on the calling thread: a call into the library that fails says why in
// one, and whoever has no log to show tells the host by this.
class ErrorLine {
public:
    // Of the log. Cuts what is long, and the line feed; what isn't UTF-8 is marked.
    static void note(const char* message);

    static void forget();

    // Empty if there was none since `forget`. The thread's own, until the next one.
    static const char* get();
};

}  // namespace kelp
