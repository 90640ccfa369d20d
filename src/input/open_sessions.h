#pragma once

namespace kelp {

class StreamParser;

// The inputs whose server is to hear of their end, also if nobody closes them before the process ends in order: by a
// return from main, or by exit. Then each of them is closed; for a second at most the process waits for that. A child
// that was forked leaves them alone.
//
// Any thread.
class OpenSessions {
public:
    // Of an input that was opened, until `remove`.
    static void add(StreamParser& parser);
    // Behind this the parser isn't called. One that wasn't added is fine.
    static void remove(StreamParser& parser);
};

}  // namespace kelp
