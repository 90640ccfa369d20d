#include "control/managed_table.h"

// The steps themselves, in three parts: what may change the state, what asks or sets something, what the engine says.

namespace kelp::test {

namespace {

constexpr int kError = PLAYER_STATE_ERROR;
constexpr int kIdle = PLAYER_STATE_IDLE;
constexpr int kInitialized = PLAYER_STATE_INITIALIZED;
constexpr int kPreparing = PLAYER_STATE_PREPARING;
constexpr int kPrepared = PLAYER_STATE_PREPARED;
constexpr int kStarted = PLAYER_STATE_STARTED;
constexpr int kPaused = PLAYER_STATE_PAUSED;
constexpr int kStopped = PLAYER_STATE_STOPPED;
constexpr int kCompleted = PLAYER_STATE_COMPLETED;

const std::vector<int> kAll(std::begin(kPlayerStates), std::end(kPlayerStates));
const std::vector<int> kAllButIdle = {kError,   kInitialized, kPreparing, kPrepared,
                                      kStarted, kPaused,      kStopped,   kCompleted};
const std::vector<int> kWithSource = {kPrepared, kStarted, kPaused, kStopped, kCompleted};
const std::vector<int> kWithoutSource = {kError, kIdle, kInitialized, kPreparing};
const std::vector<int> kInPlayback = {kStarted, kPaused, kCompleted};

std::string text(bool result) {
    return result ? "true" : "false";
}

// A refusal: the line, and nothing else.
TableRow refusal(std::vector<int> states, const std::string& operation, const std::string& result = "false") {
    return {std::move(states), result, kSameState, {}, {}, {"Error " + operation + ", error state:{state}"}};
}

TableRow everywhere(const std::string& result, Calls calls, Calls lines = {}) {
    return {kAll, result, kSameState, std::move(calls), {}, std::move(lines)};
}

void refuse(TableStage& stage, const char* operation) {
    stage.engine.answers[operation] = false;
}

using Stage = TableStage;

// Steps that may change the state.
std::vector<TableStep> stateSteps() {
    const auto start = [](Stage& s) { return text(s.player.start()); };
    const auto pause = [](Stage& s) { return text(s.player.pause()); };
    const auto resume = [](Stage& s) { return text(s.player.resume()); };
    const auto seek = [](Stage& s) { return text(s.player.seek(3000)); };
    const auto prepare = [](Stage& s) { return text(s.player.prepareAsync()); };
    const auto stop = [](Stage& s) { return text(s.player.stop()); };
    const std::vector<int> noStart = {kError, kIdle, kInitialized, kStarted, kPaused, kStopped, kCompleted};
    const std::vector<int> noPlayback = {kError, kIdle, kInitialized, kPreparing, kPrepared, kStopped, kCompleted};
    const std::vector<int> noSeek = {kError, kIdle, kInitialized, kPreparing, kStopped};
    const std::vector<int> noPrepare = {kError, kIdle, kPreparing, kPrepared, kStarted, kPaused, kCompleted};
    const std::vector<int> toStop = {kError, kPreparing, kPrepared, kStarted, kPaused, kCompleted};
    const TableRow laterPause = {noPlayback, "true", kSameState,
                                 {},         {},     {"Debug pause, current state:{state}, set pause request"}};
    const TableRow laterResume = {noPlayback, "true", kSameState,
                                  {},         {},     {"Debug resume, current state:{state}, reset pause request"}};
    return {
        {"setDataSource(url, 500, host)",
         [](Stage& s) { return text(s.player.setDataSource("other", 500, &s.host)); },
         {{{kIdle}, "true", kInitialized, {}, {}, {}}, refusal(kAllButIdle, "setDataSource")}},
        {"setDataSource(url, 500, host)",
         [](Stage& s) { return text(s.player.setDataSource("other", 500, &s.host)); },
         {{{kIdle}, "true", kInitialized, {"setExternSyncClock(clock, 500)"}, {}, {}},
          refusal(kAllButIdle, "setDataSource")},
         "a clock is set",
         [](Stage& s) { s.player.setSyncClock(&s.clock); }},
        {"prepareAsync()",
         prepare,
         {{{kInitialized, kStopped}, "true", kPreparing, {"runInWorker()", "loadFileAsync(source, 0)"}, {}, {}},
          refusal(noPrepare, "prepareAsync")}},
        {"prepareAsync()",
         prepare,
         {{{kInitialized, kStopped}, "false", kPreparing, {"runInWorker()", "loadFileAsync(source, 0)"}, {}, {}},
          refusal(noPrepare, "prepareAsync")},
         "the engine refuses loadFileAsync",
         [](Stage& s) { refuse(s, "loadFileAsync"); }},
        {"start()",
         start,
         {{{kPreparing}, "true", kSameState, {}, {}, {}},
          {{kPrepared}, "true", kStarted, {"play()", "runInWorker()"}, {"started"}, {}},
          refusal(noStart, "start")}},
        {"start()",
         start,
         {{{kPreparing}, "true", kSameState, {}, {}, {}},
          {{kPrepared}, "false", kError, {"play()"}, {}, {}},
          refusal(noStart, "start")},
         "the engine refuses play",
         [](Stage& s) { refuse(s, "play"); }},
        {"pause()",
         pause,
         {{{kStarted}, "true", kPaused, {"pause()"}, {}, {}}, {{kPaused}, "true", kSameState, {}, {}, {}}, laterPause}},
        {"pause()",
         pause,
         {{{kStarted}, "false", kError, {"pause()"}, {}, {}}, {{kPaused}, "true", kSameState, {}, {}, {}}, laterPause},
         "the engine refuses pause",
         [](Stage& s) { refuse(s, "pause"); }},
        {"resume()",
         resume,
         {{{kPaused}, "true", kStarted, {"resume()"}, {}, {}},
          {{kStarted}, "true", kSameState, {}, {}, {}},
          laterResume}},
        {"resume()",
         resume,
         {{{kPaused}, "false", kError, {"resume()"}, {}, {}},
          {{kStarted}, "true", kSameState, {}, {}, {}},
          laterResume},
         "the engine refuses resume",
         [](Stage& s) { refuse(s, "resume"); }},
        {"seek(3000)",
         seek,
         {{{kPrepared, kStarted, kPaused}, "true", kSameState, {"seek(2500)"}, {}, {}},
          {{kCompleted}, "true", kStarted, {"seek(2500)"}, {}, {}},
          refusal(noSeek, "seek")}},
        {"seek(3000)",
         seek,
         {{{kPrepared, kStarted, kPaused}, "false", kSameState, {"seek(2500)"}, {}, {}},
          {{kCompleted}, "false", kStarted, {"seek(2500)"}, {}, {}},
          refusal(noSeek, "seek")},
         "the engine refuses seek",
         [](Stage& s) { refuse(s, "seek"); }},
        {"seek(200)",
         [](Stage& s) { return text(s.player.seek(200)); },
         {{{kPrepared, kStarted, kPaused}, "true", kSameState, {"clearScreen()", "seek(-300)"}, {}, {}},
          {{kCompleted}, "true", kStarted, {"clearScreen()", "seek(-300)"}, {}, {}},
          refusal(noSeek, "seek")}},
        {"stop()",
         stop,
         {{toStop, "true", kStopped, {"stop()"}, {}, {}},
          {{kStopped}, "true", kSameState, {}, {}, {}},
          refusal({kIdle, kInitialized}, "stop")},
         "",
         nullptr,
         true},
        {"stop()",
         stop,
         {{toStop, "false", kStopped, {"stop()"}, {}, {}},
          {{kStopped}, "true", kSameState, {}, {}, {}},
          refusal({kIdle, kInitialized}, "stop")},
         "the engine refuses stop",
         [](Stage& s) { refuse(s, "stop"); },
         true},
        {"reset()",
         [](Stage& s) { return text(s.player.reset()); },
         {{{kIdle}, "true", kSameState, {}, {}, {}}, {kAllButIdle, "true", kIdle, {"enableHwDecoder(1, 3)"}, {}, {}}},
         "",
         nullptr,
         true},
    };
}

// Steps that ask or set something, and leave the state alone.
std::vector<TableStep> plainSteps() {
    const auto newOffset = [](Stage& s) { return text(s.player.setOffsetToClockMs(800)); };
    const auto giveClock = [](Stage& s) { s.player.setSyncClock(&s.clock); };
    const std::string oldToNew = "Debug setOffsetToClockMs, offset 500 -> 800";
    const std::string zeroToNew = "Debug setOffsetToClockMs, offset 0 -> 800";
    const std::vector<int> outOfPlayback = {kError, kIdle, kInitialized, kPreparing, kPrepared, kStopped};
    return {
        {"getCurrentTime()",
         [](Stage& s) { return std::to_string(s.player.getCurrentTime()); },
         {{kWithSource, "1200", kSameState, {"getCurrentTime()"}, {}, {}},
          refusal(kWithoutSource, "getCurrentTime", "0")}},
        {"getDuration()",
         [](Stage& s) { return std::to_string(s.player.getDuration()); },
         {{kWithSource, "9500", kSameState, {"getDuration()"}, {}, {}}, refusal(kWithoutSource, "getDuration", "0")}},
        {"getPlayDetailInfo(INFO_DURATION)",
         [](Stage& s) { return std::to_string(s.player.getPlayDetailInfo(INFO_DURATION)); },
         {{{kIdle}, "9000", kSameState, {"getPlayDetailInfo(0)"}, {}, {}},
          {kAllButIdle, "9500", kSameState, {"getPlayDetailInfo(0)"}, {}, {}}}},
        {"getPlayDetailInfo(INFO_WIDTH)",
         [](Stage& s) { return std::to_string(s.player.getPlayDetailInfo(INFO_WIDTH)); },
         {everywhere("101", {"getPlayDetailInfo(1)"})}},
        {"setVolume(0.5)",
         [](Stage& s) { return text(s.player.setVolume(0.5F)); },
         {{kInPlayback, "true", kSameState, {"setVolume(0.500000)"}, {}, {}},
          {outOfPlayback, "false", kSameState, {}, {}, {}}}},
        {"setVolume(0.5)",
         [](Stage& s) { return text(s.player.setVolume(0.5F)); },
         {{kInPlayback, "false", kSameState, {"setVolume(0.500000)"}, {}, {}},
          {outOfPlayback, "false", kSameState, {}, {}, {}}},
         "the engine refuses setVolume",
         [](Stage& s) { refuse(s, "setVolume"); }},
        {"setMute(true)",
         [](Stage& s) {
             s.player.setMute(true);
             return text(s.player.isMuted());
         },
         {everywhere("true", {"setMute(1)"})}},
        {"setLoop(500, 900)",
         [](Stage& s) { return text(s.player.setLoop(500, 900)); },
         {{{kIdle}, "true", kSameState, {"setLoop(500, 900)"}, {}, {}},
          {kAllButIdle, "true", kSameState, {"setLoop(0, 400)"}, {}, {}}}},
        {"clearLoop()",
         [](Stage& s) {
             s.player.clearLoop();
             return std::string();
         },
         {everywhere("", {"clearLoop()"})}},
        {"setSpeed(1.5)",
         [](Stage& s) {
             s.player.setSpeed(1.5F);
             return "";
         },
         {everywhere("", {"setSpeed(1.500000)"})}},
        {"addWindow(w, SDL, 640, 360)",
         [](Stage& s) { return text(s.player.addWindow(&s.host, WINDOW_TYPE_SDL, 640, 360)); },
         {everywhere("true", {"addWindow(2, 640, 360)"})}},
        {"removeWindow(w)",
         [](Stage& s) { return text(s.player.removeWindow(&s.host)); },
         {everywhere("true", {"removeWindow()"})}},
        {"pauseWindow(w, true)",
         [](Stage& s) { return text(s.player.pauseWindow(&s.host, true)); },
         {everywhere("true", {"pauseWindow(1)"})}},
        {"enableHwDecoder(false, ACCEL)",
         [](Stage& s) {
             s.player.enableHwDecoder(false, HW_DECODE_ACCEL);
             return "";
         },
         {everywhere("", {"enableHwDecoder(0, 2)"})}},
        {"setAVSyncMode(AUDIO)",
         [](Stage& s) {
             s.player.setAVSyncMode(SYNC_MASTER_AUDIO);
             return "";
         },
         {everywhere("", {"setAVSyncMode(1)"})}},
        {"setSyncClock(clock)",
         [](Stage& s) {
             s.player.setSyncClock(&s.clock);
             return "";
         },
         {{{kIdle}, "", kSameState, {"setExternSyncClock(clock, 0)"}, {}, {}},
          {kAllButIdle, "", kSameState, {"setExternSyncClock(clock, 500)"}, {}, {}}}},
        {"setSyncClock(null)",
         [](Stage& s) {
             s.player.setSyncClock(nullptr);
             return "";
         },
         {{{kIdle}, "", kSameState, {"setExternSyncClock(null, 0)"}, {}, {}},
          {kAllButIdle, "", kSameState, {"setExternSyncClock(null, 500)"}, {}, {}}}},
        {"setOffsetToClockMs(500)",
         [](Stage& s) { return text(s.player.setOffsetToClockMs(500)); },
         {{{kIdle}, "false", kSameState, {}, {}, {"Debug setOffsetToClockMs, offset 0 -> 500"}},
          {kAllButIdle, "true", kSameState, {}, {}, {}}}},
        {"setOffsetToClockMs(800)",
         newOffset,
         {{{kIdle}, "false", kSameState, {}, {}, {zeroToNew}}, {kAllButIdle, "false", kSameState, {}, {}, {oldToNew}}}},
        {"setOffsetToClockMs(800)",
         newOffset,
         {{{kIdle}, "true", kSameState, {"setExternSyncClock(clock, 800)", "seek(11200)"}, {}, {zeroToNew}},
          {kAllButIdle, "true", kSameState, {"setExternSyncClock(clock, 800)", "seek(11200)"}, {}, {oldToNew}}},
         "a clock is set, at 12000",
         giveClock},
        {"setOption(retry_when_failed, 2000)",
         [](Stage& s) {
             s.player.setOption("retry_when_failed", "2000");
             return "";
         },
         {everywhere("", {})}},
        {"setOption(KEY, VALUE)",
         [](Stage& s) {
             s.player.setOption("rtsp_transport", "udp");
             return "";
         },
         {everywhere("", {"setOption(rtsp_transport, udp)"})}},
        {"runInWorker(f)",
         [](Stage& s) {
             s.player.runInWorker([] {});
             return "";
         },
         {everywhere("", {"runInWorker()"})}},
        {"addTimer(10, false, f)",
         [](Stage& s) { return std::to_string(s.player.addTimer(10, false, [] {})); },
         {everywhere("1", {"addTimer(10, 0)"})}},
        {"removeTimer(1)",
         [](Stage& s) {
             s.player.removeTimer(1);
             return "";
         },
         {everywhere("", {"removeTimer(1)"})}},
    };
}

std::string failedLine(int type, int extra) {
    return "Info onFailed, errorType:" + std::to_string(type) + ", extraData:" + std::to_string(extra) +
           ", current state:{state}";
}

// Events of the engine. In the idle and the initialized state they are those of a source that was given up. Without a
// source no host is known either.
std::vector<TableStep> eventSteps() {
    const auto fail = [](int type, int extra) {
        return [type, extra](Stage& s) {
            s.engine.observer->onFailed(nullptr, type, extra);
            return std::string();
        };
    };
    const auto failAndWait = [](Stage& s) {
        s.engine.observer->onFailed(nullptr, ERROR_TYPE_STREAM, 1);
        s.engine.fire(1);
        return std::string();
    };
    const auto retryOn = [](Stage& s) { s.player.setOption("retry_when_failed", "2000"); };
    const auto prepared = [](Stage& s) {
        s.engine.observer->onPrepared(nullptr, true, false);
        return std::string();
    };
    const std::string preparedLine = "Info onPrepared, hasVideo:1, hasAudio:0";
    const std::vector<int> notPreparing = {kError,   kIdle,   kInitialized, kPrepared,
                                           kStarted, kPaused, kStopped,     kCompleted};
    const std::vector<int> noRestart = {kError, kIdle, kInitialized, kPrepared, kStopped, kCompleted};
    const std::vector<int> restart = {kPreparing, kStarted, kPaused};
    const TableRow late = {notPreparing, "", kSameState, {}, {}, {preparedLine, "Debug onPrepared new state:{state}"}};
    const auto request = [](bool start, bool pause, const char* refused) {
        return [start, pause, refused](Stage& s) {
            if (s.player.*privateMember(PrivateMember<TarnPlayerStateTag, TarnPlayerState>{}) !=
                PLAYER_STATE_PREPARING) {
                return;
            }
            if (start) {
                s.player.start();
            }
            if (pause) {
                s.player.pause();
            }
            if (refused) {
                refuse(s, refused);
            }
        };
    };
    const std::string retryLine = "Info onFailed, add retry timer, retryTimerId_:1";
    const std::string restartLine = "Debug restartWithOldState, state:{state}";
    const auto told = [](const char* what) {
        return std::vector<TableRow>{{{kIdle}, "", kSameState, {}, {}, {}},
                                     {kAllButIdle, "", kSameState, {}, {what}, {}}};
    };
    const auto withLine = [](std::vector<TableRow> rows, const std::string& line) {
        for (auto& row : rows) {
            row.lines = {line};
        }
        return rows;
    };
    return {
        {"onPrepared", prepared, {{{kPreparing}, "", kPrepared, {}, {"prepared 1 0"}, {preparedLine}}, late}},
        {"onPrepared",
         prepared,
         {{{kPreparing}, "", kStarted, {"play()", "runInWorker()"}, {"prepared 1 0", "started"}, {preparedLine}}, late},
         "start was asked for",
         request(true, false, nullptr)},
        {"onPrepared",
         prepared,
         {{{kPreparing},
           "",
           kPaused,
           {"play()", "runInWorker()", "pause()"},
           {"prepared 1 0", "started"},
           {preparedLine}},
          late},
         "start and pause were asked for",
         request(true, true, nullptr)},
        {"onPrepared",
         prepared,
         {{{kPreparing}, "", kPrepared, {}, {"prepared 1 0"}, {preparedLine}}, late},
         "pause was asked for",
         request(false, true, nullptr)},
        {"onPrepared",
         prepared,
         {{{kPreparing}, "", kError, {"play()"}, {"prepared 1 0", "failed 0"}, {preparedLine}}, late},
         "start was asked for, the engine refuses play",
         request(true, false, "play")},
        {"onPrepared",
         prepared,
         {{{kPreparing},
           "",
           kError,
           {"play()", "runInWorker()", "pause()"},
           {"prepared 1 0", "started"},
           {preparedLine}},
          late},
         "start and pause were asked for, the engine refuses pause",
         request(true, true, "pause")},
        {"onCompleted",
         [](Stage& s) {
             s.engine.observer->onCompleted(nullptr);
             return "";
         },
         {{{kIdle}, "", kCompleted, {}, {}, {"Info onCompleted"}},
          {kAllButIdle, "", kCompleted, {}, {"completed"}, {"Info onCompleted"}}},
         "",
         nullptr,
         true},
        {"onFailed(stream)",
         fail(ERROR_TYPE_STREAM, 1),
         {{{kIdle}, "", kError, {}, {}, {failedLine(1, 1)}},
          {kAllButIdle, "", kError, {}, {"failed 1"}, {failedLine(1, 1)}}},
         "",
         nullptr,
         true},
        {"onFailed(stream)",
         fail(ERROR_TYPE_STREAM, 1),
         {{kAll, "", kError, {"addTimer(2000, 1)"}, {}, {failedLine(1, 1), retryLine}}},
         "retry_when_failed is 2000",
         retryOn,
         true},
        {"onFailed(stream), 2000 ms",
         failAndWait,
         {{restart,
           "",
           kPreparing,
           {"addTimer(2000, 1)", "removeTimer(1)", "runInWorker()", "stop()", "runInWorker()",
            "loadFileAsync(source, 0)"},
           {},
           {failedLine(1, 1), retryLine, restartLine}},
          {noRestart,
           "",
           kError,
           {"addTimer(2000, 1)", "removeTimer(1)", "runInWorker()"},
           {},
           {failedLine(1, 1), retryLine, restartLine}}},
         "retry_when_failed is 2000",
         retryOn},
        {"onFailed(decoder, hardware on)",
         fail(ERROR_TYPE_VIDEO_DECODE, 1),
         {{restart,
           "",
           kPreparing,
           {"enableHwDecoder(0, 0)", "runInWorker()", "stop()", "runInWorker()", "loadFileAsync(source, 0)"},
           {},
           {failedLine(2, 1), restartLine}},
          {noRestart, "", kError, {"enableHwDecoder(0, 0)", "runInWorker()"}, {}, {failedLine(2, 1), restartLine}}}},
        {"onFailed(decoder, hardware off)",
         fail(ERROR_TYPE_VIDEO_DECODE, 0),
         {{{kIdle}, "", kError, {}, {}, {failedLine(2, 0)}},
          {kAllButIdle, "", kError, {}, {"failed 2"}, {failedLine(2, 0)}}},
         "",
         nullptr,
         true},
        {"onVideoSizeUpdated",
         [](Stage& s) {
             s.engine.observer->onVideoSizeUpdated(nullptr, 640, 360, 90);
             return "";
         },
         withLine(told("size 640 360 90"), "Info onVideoSizeUpdated, width:640, height:360, rotate:90")},
        {"onFirstPacket",
         [](Stage& s) {
             s.engine.observer->onFirstPacket(nullptr, 7);
             return "";
         },
         {everywhere("", {}, {"Info onFirstPacket, ptsMs:7"})}},
        {"onFirstVideoFrame",
         [](Stage& s) {
             s.engine.observer->onFirstVideoFrame(nullptr, 40);
             return "";
         },
         withLine(told("picture 540"), "Info onFirstVideoFrame, ptsMs:40")},
        {"onFirstAudioFrame",
         [](Stage& s) {
             s.engine.observer->onFirstAudioFrame(nullptr, 21);
             return "";
         },
         withLine(told("sound 521"), "Info onFirstAudioFrame, ptsMs:21")},
        {"onDurationUpdated",
         [](Stage& s) {
             s.engine.observer->onDurationUpdated(nullptr, 8000);
             return "";
         },
         withLine(told("duration 8500"), "Info onDurationUpdated, durationMs:8000")},
    };
}

}  // namespace

const std::vector<TableStep>& managedTable() {
    static const std::vector<TableStep> table = [] {
        std::vector<TableStep> all = stateSteps();
        for (const auto& more : {plainSteps(), eventSteps()}) {
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }();
    return table;
}

}  // namespace kelp::test
