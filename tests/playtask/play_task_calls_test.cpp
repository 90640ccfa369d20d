#include <gmock/gmock.h>

#include <mutex>
#include <utility>

#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"
#include "playtask/play_task_peer.h"
#include "support/private_member.h"

// In which order the stages are told of what concerns them all. They note it here and don't run.

namespace kelp::test {

using ParserPaused = std::atomic<bool> StreamParser::*;
ParserPaused privateMember(PrivateMember<struct ParserPausedTag, ParserPaused>);
template struct ExposeMember<struct ParserPausedTag, &StreamParser::paused_>;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Notes = std::vector<std::string>;

template <class PlayThread>
class NotingPlay : public PlayThread {
public:
    template <class... Args>
    NotingPlay(Notes& notes, std::string name, std::function<std::string()> source, Args... args)
        : PlayThread(args...), notes_(notes), name_(std::move(name)), source_(std::move(source)) {}

    bool pause(bool paused) override {
        note((paused ? "pauses behind " : "goes on behind ") + source_());
        return true;
    }
    bool checkBuffer(int) override {
        note("is asked");
        return reached;
    }
    bool clearBuffer(int) override {
        note("drops");
        return true;
    }
    void seek(int, bool) override { note("seeks"); }
    void setMaxPtsMs(int64_t ms) override { note("ends at " + std::to_string(ms)); }
    void prepareStop() override {
        if (!std::exchange(isToEnd_, true)) {
            note("is to end");
        }
        PlayThread::prepareStop();
    }
    void stop() override {
        note("stops");
        PlayThread::stop();
    }
    void setSyncObject(std::shared_ptr<SyncObject> master) override {
        if (master) {
            note("follows");
        }
    }

    bool reached = true;

private:
    void note(const std::string& what) { notes_.push_back(name_ + " " + what); }

    Notes& notes_;
    const std::string name_;
    const std::function<std::string()> source_;
    bool isToEnd_ = false;
};

template <class DecodeThread>
class NotingDecode : public DecodeThread {
public:
    NotingDecode(Notes& notes, std::string name) : notes_(notes), name_(std::move(name)) {}

    bool checkBuffer(int) override {
        note("is asked");
        return true;
    }
    bool clearBuffer(int) override {
        note("skips");
        return true;
    }
    void seek(int) override { note("seeks"); }
    void prepareStop() override {
        if (!std::exchange(isToEnd_, true)) {
            note("is to end");
        }
        DecodeThread::prepareStop();
    }
    void stop() override {
        note("stops");
        DecodeThread::stop();
    }

private:
    void note(const std::string& what) { notes_.push_back(name_ + " " + what); }

    Notes& notes_;
    const std::string name_;
    bool isToEnd_ = false;
};

class NotingClock : public MasterClock {
public:
    NotingClock(Notes& notes, std::function<std::string()> state) : notes_(notes), state_(std::move(state)) {}
    void save(int64_t pts) override { notes_.push_back("clock keeps " + std::to_string(pts) + ", " + state_()); }
    void restore() override { notes_.push_back("clock goes on, " + state_()); }

private:
    Notes& notes_;
    const std::function<std::string()> state_;
};

class PlayTaskCalls : public testing::Test {
protected:
    PlayTaskCalls() {
        const auto source = [this] { return isParserPaused() ? "a held parser" : "a reading parser"; };
        video = std::make_shared<NotingPlay<VideoPlayThread>>(notes, "video", source, false, nullptr);
        under.peer.set(std::shared_ptr<VideoPlayThread>(video));
        under.peer.set(
            std::shared_ptr<AudioPlayThread>(std::make_shared<NotingPlay<AudioPlayThread>>(notes, "audio", source)));
        under.peer.set(std::shared_ptr<VideoDecodeThread>(
            std::make_shared<NotingDecode<VideoDecodeThread>>(notes, "video decoder")));
        under.peer.set(std::shared_ptr<AudioDecodeThread>(
            std::make_shared<NotingDecode<AudioDecodeThread>>(notes, "audio decoder")));
        under.peer.set(std::shared_ptr<MasterClock>(std::make_shared<NotingClock>(notes, [this] {
            return std::string(isParserPaused() ? "held" : "reading") + (under.peer.isSeeking() ? " seeking " : " ") +
                   std::to_string(under.events().size());
        })));
        under.peer.setSeekable(true, 60000);
    }

    bool isParserPaused() {
        return (*under.peer.parser()).*privateMember(PrivateMember<ParserPausedTag, ParserPaused>{});
    }

    Notes notes;
    TaskUnderTest under;
    std::shared_ptr<NotingPlay<VideoPlayThread>> video;
};

TEST_F(PlayTaskCalls, PauseFromTheClockToTheSound) {
    under.task->pause();
    under.task->resume();
    EXPECT_THAT(notes, ElementsAre("clock keeps -1, reading 0", "video pauses behind a held parser",
                                   "audio pauses behind a held parser", "clock goes on, held 0",
                                   "video goes on behind a reading parser", "audio goes on behind a reading parser"));
}

TEST_F(PlayTaskCalls, StandForWantOfDataAsInAPauseButReadOn) {
    under.peer.setStalled(true);
    under.peer.setStalled(false);
    EXPECT_THAT(notes, ElementsAre("clock keeps -1, reading 0", "video pauses behind a reading parser",
                                   "audio pauses behind a reading parser", "clock goes on, reading 1",
                                   "video goes on behind a reading parser", "audio goes on behind a reading parser"));
    EXPECT_THAT(under.events(),
                ElementsAre(test::Event{EVENT_STALLED, 0, 0, 0}, test::Event{EVENT_STALL_ENDED, 0, 0, 0}));
}

TEST_F(PlayTaskCalls, StayPausedWhenAStallEndsInAPause) {
    under.peer.setStalled(true);
    notes.clear();
    under.task->pause();
    EXPECT_TRUE(isParserPaused());
    under.peer.setStalled(false);
    EXPECT_THAT(notes, IsEmpty());
    under.task->resume();
    EXPECT_THAT(notes, ElementsAre("clock goes on, held 2", "video goes on behind a reading parser",
                                   "audio goes on behind a reading parser"));
}

TEST_F(PlayTaskCalls, StandOnWhenAPauseEndsInAStall) {
    under.peer.setStalled(true);
    under.task->pause();
    notes.clear();
    under.task->resume();
    EXPECT_FALSE(isParserPaused());
    EXPECT_THAT(notes, IsEmpty());
    under.peer.setStalled(false);
    EXPECT_THAT(notes, ElementsAre("clock goes on, reading 1", "video goes on behind a reading parser",
                                   "audio goes on behind a reading parser"));
}

TEST_F(PlayTaskCalls, TellWhatWaitsOfTheShorterStreamAndOfTheOnlyOne) {
    for (const int64_t pts : {0, 3000}) {
        const auto picture = std::make_shared<VideoFrameInfo>();
        picture->pts = pts;
        under.peer.videoPlay()->fillFrame(picture);
        const auto sound = std::make_shared<AudioFrameInfo>();
        sound->pts = pts / 6 * 5;
        under.peer.audioPlay()->fillFrame(sound);
    }
    EXPECT_EQ(under.peer.dataLevel().waitingMs, 2500);
    under.peer.set(std::shared_ptr<AudioPlayThread>());
    EXPECT_EQ(under.peer.dataLevel().waitingMs, 3000);
    under.peer.set(std::shared_ptr<VideoPlayThread>());
    EXPECT_EQ(under.peer.dataLevel().waitingMs, 0);
}

TEST_F(PlayTaskCalls, CountAsPlayingFromTheFirstFrameToAPauseOrASeek) {
    EXPECT_FALSE(under.peer.dataLevel().isPlaying);
    under.fromVideoPlay().onFirstVideoFrame(0);
    EXPECT_TRUE(under.peer.dataLevel().isPlaying);
    under.task->pause();
    EXPECT_FALSE(under.peer.dataLevel().isPlaying);
    under.task->resume();
    EXPECT_TRUE(under.peer.dataLevel().isPlaying);
    under.fromParser().onSeekStart(2000);
    EXPECT_FALSE(under.peer.dataLevel().isPlaying);
    under.fromAudioPlay().onFirstAudioFrame(2000);
    EXPECT_TRUE(under.peer.dataLevel().isPlaying);
}

TEST_F(PlayTaskCalls, DontCountAsPlayingByAClockThatCantHold) {
    under.fromVideoPlay().onFirstVideoFrame(0);
    under.task->setExternSyncClock(std::make_shared<MasterClock>());
    EXPECT_FALSE(under.peer.dataLevel().isPlaying);
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    EXPECT_TRUE(under.peer.dataLevel().isPlaying);
}

TEST_F(PlayTaskCalls, StopFromTheSourceDownAfterAllHaveHeardOfIt) {
    under.task->stop();
    EXPECT_THAT(notes,
                ElementsAre("video decoder is to end", "audio decoder is to end", "video is to end", "audio is to end",
                            "video decoder stops", "audio decoder stops", "video stops", "audio stops"));
}

TEST_F(PlayTaskCalls, SeekInThePictureFirst) {
    under.task->seek(1000);
    EXPECT_THAT(notes, ElementsAre("video is asked", "video drops", "audio drops"));
    notes.clear();
    video->reached = false;
    under.task->seek(2000);
    EXPECT_THAT(notes,
                ElementsAre("video is asked", "video decoder is asked", "video decoder skips", "audio decoder skips"));
    notes.clear();
    under.fromParser().onSeekStart(2000);
    EXPECT_THAT(notes, ElementsAre("video decoder seeks", "audio decoder seeks"));
}

TEST_F(PlayTaskCalls, GiveTheMasterToTheSoundFirst) {
    const std::shared_ptr<SyncObject> clock = std::make_shared<MasterClock>();
    under.task->setExternSyncClock(clock);
    EXPECT_THAT(notes, ElementsAre("audio follows", "video follows"));
    notes.clear();
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    EXPECT_THAT(notes, ElementsAre("audio follows", "video follows"));
}

TEST_F(PlayTaskCalls, TellTheEndOfTheFileToThePictureFirst) {
    under.fromParser().onFileEnd(1960, 2010);
    EXPECT_THAT(notes, ElementsAre("video ends at 1960", "audio ends at 2010"));
}

TEST_F(PlayTaskCalls, SetTheClockBetweenTheEventAndTheEndOfASeek) {
    under.peer.setSeeking(true, 500);
    under.fromVideoPlay().onFirstVideoFrame(510);
    EXPECT_THAT(notes, ElementsAre("clock keeps 510, reading seeking 1", "clock goes on, reading seeking 1"));
    EXPECT_FALSE(under.peer.isSeeking());
}

}  // namespace
}  // namespace kelp::test
