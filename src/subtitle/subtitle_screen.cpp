#include "subtitle/subtitle_screen.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <optional>
#include <system_error>
#include <utility>

#include "kelp_player/log.h"
#include "kelp_player/subtitle_sink.h"
#include "subtitle/shown_lines.h"

namespace kelp {

namespace {

constexpr char kTag[] = "SubtitleScreen";
constexpr size_t kKeptDrawings = 3;  // the picture that is shown, the next one, and one that was asked for before
constexpr int64_t kLastTime = std::numeric_limits<int64_t>::max();
constexpr int64_t kNearMs = 200;  // what was drawn for a picture so far away stands in for one that isn't drawn yet

bool isMoving(const SubtitleTrack::Moment& moment) {
    return std::ranges::any_of(moment.events, [](const auto& event) { return event->isMoving(); });
}

}  // namespace

class SubtitleScreen::View {
public:
    struct Drawing {
        Source source;
        int64_t timeMs = 0;
        int64_t fromMs = 0;  // as long as it holds, as far as was known
        int64_t toMs = 0;
        Answer answer;

        bool holds(int64_t time) const { return fromMs <= time && time < toMs; }
    };

    const Drawing* find(const Source& source, int64_t timeMs, const SubtitleScreenSize& wanted) const {
        const auto found = std::ranges::find_if(drawings, [&](const Drawing& drawing) {
            return drawing.source == source && drawing.answer.size == wanted && drawing.holds(timeMs);
        });
        return found == drawings.end() ? nullptr : &*found;
    }
    const Drawing* findNear(const Source& source, int64_t timeMs) const {
        const auto found = std::ranges::find_if(drawings, [&](const Drawing& drawing) {
            return drawing.source.track == source.track &&
                   (drawing.holds(timeMs) || std::abs(drawing.timeMs - timeMs) <= kNearMs);
        });
        return found == drawings.end() ? nullptr : &*found;
    }

    // Guarded by the screen's mutex.
    int64_t wantedMs = kNoTime;
    SubtitleScreenSize size;
    std::deque<Drawing> drawings;  // the newest first

    SubtitleDrawer drawer;  // the subtitle thread's
};

SubtitleScreen::SubtitleScreen(std::shared_ptr<SubtitleTracks> tracks)
    : BaseThread("SubtitleScreen"), tracks_(std::move(tracks)) {
}

SubtitleScreen::~SubtitleScreen() {
    end();
}

void SubtitleScreen::begin() {
    if (std::exchange(isBegun_, true)) {
        return;
    }
    resetStopRequest();
    try {
        startThread();
    } catch (const std::system_error& error) {
        isBegun_ = false;
        Log::Error(kTag, "%s, there is no thread for subtitles: %s\n", "begin", error.what());
    }
}

void SubtitleScreen::end() {
    if (std::exchange(isBegun_, false)) {
        prepareStop();
        joinThread();
    }
    std::lock_guard lock(mutex_);
    preparedMs_ = shownMs_ = kNoTime;
    told_ = {};
    for (const auto& known : views_) {
        if (const auto view = known.lock()) {
            view->wantedMs = kNoTime;
            view->drawings.clear();
        }
    }
}

SubtitleScreen::Source SubtitleScreen::source() const {
    auto track = tracks_->current();
    const unsigned int version = track ? track->version() : 0;
    return {std::move(track), version};
}

void SubtitleScreen::ask() {
    ++asked_;
    endRest();
}

void SubtitleScreen::prepare(int64_t timeMs) {
    if (!tracks_->isAny()) {
        return;
    }
    const Source now = source();
    if (!now.track) {
        return;
    }
    bool isWanted = false;
    {
        std::lock_guard lock(mutex_);
        preparedMs_ = timeMs;
        for (const auto& known : views_) {
            const auto view = known.lock();
            isWanted = isWanted || (view && view->size.width > 0 && !view->find(now, timeMs, view->size));
        }
    }
    if (isWanted) {
        ask();
    }
}

void SubtitleScreen::shown(int64_t timeMs) {
    if (!tracks_->isAny()) {
        return;
    }
    const Source now = source();
    bool isWanted = false;
    {
        std::lock_guard lock(mutex_);
        shownMs_ = timeMs;
        isWanted = sink_.isSet() && (told_.source != now || timeMs < told_.fromMs || timeMs >= told_.toMs);
    }
    if (isWanted) {
        ask();
    }
}

std::shared_ptr<SubtitleScreen::View> SubtitleScreen::addView() {
    auto view = std::make_shared<View>();
    std::lock_guard lock(mutex_);
    std::erase_if(views_, [](const auto& known) { return known.expired(); });
    views_.push_back(view);
    return view;
}

SubtitleScreen::Answer SubtitleScreen::at(View& view, int64_t timeMs, const SubtitleScreenSize& size) {
    const Source now = source();
    if (!now.track) {
        return {};
    }
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        view.wantedMs = timeMs;
        view.size = size;
        pictureWidth_ = size.pictureWidth;
        pictureHeight_ = size.pictureHeight;
        if (const auto* const drawing = view.find(now, timeMs, size)) {
            return drawing->answer;
        }
        if (const auto* const drawing = view.findNear(now, timeMs)) {
            answer = drawing->answer;
        }
    }
    ask();
    answer.isFinal = false;
    return answer;
}

void SubtitleScreen::setSink(ExternSubtitleSink* sink) {
    ExternSubtitleSink* const replaced = sink_.set(sink);
    ask();
    if (!sink_.waitUntilUncalled(replaced)) {
        Log::Error(kTag, "%s, the host's subtitle sink is still being called after %d ms, it must not end yet\n",
                   "setSubtitleSink", static_cast<int>(sink_.kLongestWait.count()));
    }
}

// What is asked for is noted before it is counted, and the count is read before the look at it: what comes between that
// look and the rest lets the rest not begin.
void SubtitleScreen::Run() {
    setName("Subtitles");
    while (!isStopRequested()) {
        const unsigned int asked = asked_;
        work();
        rest(Rest::kForeverMs, [&] { return asked_ != asked; });
    }
    tellEnd();
}

void SubtitleScreen::work() {
    // A moving line may draw slower than the film goes on, so that there is always more.
    bool isMore = false;
    do {
        const Source now = source();
        const Job job = now.track ? findJob(now) : Job();
        isMore = job.view != nullptr;
        if (isMore) {
            carryOut(job, now);
        }
        tellSink(now);
    } while (isMore && !isStopRequested());
}

SubtitleScreen::Job SubtitleScreen::findJob(const Source& source) {
    std::lock_guard lock(mutex_);
    for (const auto& known : views_) {
        const auto view = known.lock();
        if (!view || view->size.width <= 0) {
            continue;
        }
        for (const int64_t timeMs : {view->wantedMs, preparedMs_}) {
            if (timeMs != kNoTime && !view->find(source, timeMs, view->size)) {
                return {view, timeMs, view->size};
            }
        }
    }
    return {};
}

void SubtitleScreen::carryOut(const Job& job, const Source& source) {
    const auto moment = source.track->at(job.timeMs);
    const bool moves = isMoving(moment);
    View::Drawing drawing{source,
                          job.timeMs,
                          moves ? job.timeMs : moment.fromMs,
                          moves ? job.timeMs + 1 : moment.toMs,
                          {job.view->drawer.draw(source.track, job.timeMs, job.size), job.size}};
    std::lock_guard lock(mutex_);
    auto& drawings = job.view->drawings;
    drawings.push_front(std::move(drawing));
    if (drawings.size() > kKeptDrawings) {
        drawings.pop_back();
    }
}

void SubtitleScreen::tellSink(const Source& source) {
    const SinkSlot<ExternSubtitleSink>::Call call(sink_);
    if (!call.sink) {
        return;
    }
    int64_t timeMs = kNoTime;
    bool isNew = false;
    SubtitleScreenSize size;
    {
        std::lock_guard lock(mutex_);
        timeMs = shownMs_;
        isNew = told_.sink != call.number;
        size = {0, 0, pictureWidth_, pictureHeight_};
    }
    if (timeMs == kNoTime) {
        return;
    }
    const auto moment = source.track ? source.track->at(timeMs) : SubtitleTrack::Moment{{}, kNoTime, kLastTime};
    const SubtitlePictureSize wanted = call.sink->pictureSize();
    const bool moves = wanted.width > 0 && wanted.height > 0 && isMoving(moment);
    {
        std::lock_guard lock(mutex_);
        told_ = {call.number, source, moves ? timeMs : moment.fromMs, moves ? timeMs + 1 : moment.toMs};
    }
    // A new sink knows of nothing, and needn't be told that there is nothing.
    const bool isKnown = isNew ? moment.events.empty() : moment.events == toldEvents_;
    toldEvents_ = moment.events;
    if (isKnown && (!moves || timeMs == toldMs_)) {
        return;
    }
    toldMs_ = timeMs;
    size.width = wanted.width;
    size.height = wanted.height;
    const DrawnSubtitles drawn = sinkDrawer_.draw(source.track, timeMs, size);
    call.sink->onSubtitles(shownSubtitles(timeMs, source.track.get(), moment.events, drawn.get()));
}

void SubtitleScreen::tellEnd() {
    const SinkSlot<ExternSubtitleSink>::Call call(sink_);
    const auto events = std::exchange(toldEvents_, {});
    bool isKnown = false;
    ShownSubtitles none;
    {
        std::lock_guard lock(mutex_);
        isKnown = told_.sink == call.number;
        none.timeMs = shownMs_;
    }
    if (call.sink && isKnown && !events.empty()) {
        call.sink->onSubtitles(none);
    }
}

}  // namespace kelp
