#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "runtime/base_thread.h"
#include "runtime/sink_slot.h"
#include "subtitle/subtitle_drawer.h"
#include "subtitle/subtitle_tracks.h"

namespace kelp {

class ExternSubtitleSink;

// Draws the subtitles that go with the pictures, for windows of any size and for the host's sink, on a thread of its
// own: a line that takes long to draw comes late, and holds nothing else up.
//
// The thread runs while a track is chosen, between `begin` and `end`, which one owner calls. Who shows pictures tells
// the time of the next one and asks for what goes with it; neither waits for a drawing. Without a chosen track that is
// one look at an atomic.
class SubtitleScreen : private BaseThread {
public:
    explicit SubtitleScreen(std::shared_ptr<SubtitleTracks> tracks);
    ~SubtitleScreen() override;

    // Starts the thread if it doesn't run. Without it nothing is drawn, and an Error line says so.
    void begin();
    void prepareEnd() { prepareStop(); }
    // Ends it; the sink is told that nothing is to be seen any more.
    void end();

    // Whether a track is chosen.
    bool isOn() const { return tracks_->chosen() != SubtitleTracks::kNone; }

    // A picture of this time is shown soon.
    void prepare(int64_t timeMs);
    // It is shown.
    void shown(int64_t timeMs);

    // What is drawn for one window.
    class View;
    std::shared_ptr<View> addView();

    struct Answer {
        DrawnSubtitles subtitles;
        SubtitleScreenSize size;  // that they were drawn for
        bool isFinal = true;      // false: they come nearest to what is being drawn
    };
    Answer at(View& view, int64_t timeMs, const SubtitleScreenSize& size);

    // Calls the host's `sink`, or none; not owned. The one before isn't called any more once this returns, which it
    // does after a second at the latest, with an Error line.
    void setSink(ExternSubtitleSink* sink);

private:
    friend class SubtitleScreenPeer;  // lets tests draw without the thread

    static constexpr int64_t kNoTime = std::numeric_limits<int64_t>::min();

    // The track that is shown, as far as it is known.
    struct Source {
        std::shared_ptr<const SubtitleTrack> track;
        unsigned int version = 0;
        bool operator==(const Source&) const = default;
    };
    Source source() const;

    struct Job {
        std::shared_ptr<View> view;
        int64_t timeMs = 0;
        SubtitleScreenSize size;
    };

    // What the sink knows.
    struct Told {
        unsigned int sink = 0;  // its number
        Source source;
        int64_t fromMs = 0;  // as long as it holds
        int64_t toMs = 0;
    };

    void Run() override;
    // Draws and tells what is wanted by now.
    void work();
    Job findJob(const Source& source);
    void carryOut(const Job& job, const Source& source);
    void tellSink(const Source& source);
    void tellEnd();
    void ask();

    const std::shared_ptr<SubtitleTracks> tracks_;
    std::atomic<unsigned int> asked_{0};  // counts what the thread is woken for
    SinkSlot<ExternSubtitleSink> sink_;

    std::mutex mutex_;  // guards the rest of this paragraph, and what the views have
    std::vector<std::weak_ptr<View>> views_;
    int64_t preparedMs_ = kNoTime;
    int64_t shownMs_ = kNoTime;
    int pictureWidth_ = 0;  // of the film, as the views know it
    int pictureHeight_ = 0;
    Told told_;

    // The thread's.
    SubtitleDrawer sinkDrawer_;
    std::vector<SubtitleTrack::Event> toldEvents_;
    int64_t toldMs_ = kNoTime;  // the time that went with them

    bool isBegun_ = false;  // the owner's
};

}  // namespace kelp
