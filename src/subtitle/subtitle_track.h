#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "subtitle/subtitle_event.h"
#include "subtitle/subtitle_fonts.h"

namespace kelp {

// What is known of one track of subtitles: its events in time, as many as fit into its memory. What is known stays
// known, so it is there again after a seek back. Any thread.
class SubtitleTrack {
public:
    // What holds for all of it.
    struct Head {
        bool isText = true;
        bool isStyled = false;  // the author of the script placed its lines, on a canvas of the picture's shape
        std::string script;     // the head of a script of ASS, with its styles
        std::shared_ptr<const SubtitleFonts> fonts;  // or null
    };
    using Event = std::shared_ptr<const SubtitleEvent>;

    // What stands at a moment, and for how long nothing of that changes, as far as it is known now.
    struct Moment {
        std::vector<Event> events;  // by their start
        int64_t fromMs = 0;
        int64_t toMs = 0;  // the first moment at which it may be otherwise
    };

    explicit SubtitleTrack(Head head) : head_(std::move(head)) {}

    const Head& head() const { return head_; }

    // One that is known already changes nothing.
    void add(SubtitleEvent event);

    // What comes next doesn't go on from what came last. Pictures go: what ended them may not have been read.
    void gap();

    Moment at(int64_t timeMs) const;

    // All events, by their start.
    std::vector<Event> all() const;

    // Another number whenever there is another answer to `at` or `all`.
    unsigned int version() const;

private:
    using Key = std::pair<int64_t, uint64_t>;  // the start, and a number that counts events

    struct Known {
        Event event;
        bool endsWithNext;  // of pictures one set replaces the other, and what says no end stands until the next
    };

    bool isKnown(const SubtitleEvent& event, bool endsWithNext) const;
    // Whatever ends with the next one does so.
    void endBefore(int64_t timeMs);
    void makeRoom(int64_t nearMs);

    const Head head_;
    mutable std::mutex mutex_;     // a leaf; guards the rest
    std::map<Key, Known> events_;  // by their start
    size_t bytes_ = 0;             // of all events
    size_t openCount_ = 0;         // of those that end with the next
    uint64_t count_ = 0;           // of events that came
    unsigned int version_ = 0;
};

}  // namespace kelp
