#include <gmock/gmock.h>

#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

// Which changes of tracks are taken.

namespace kelp::test {
namespace {

using testing::ElementsAre;

class PlayTaskTracks : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(); }
    void TearDown() override { FakeTime::reset(); }

    void load(const std::string& name) {
        ASSERT_TRUE(under.task->loadFileAsync(smallMedia(name), 0));
        ASSERT_TRUE(under.waitFor(EVENT_PREPARED));
    }

    // What the task has said of it; the stages have their own to say of hardware.
    static std::vector<std::string> refusals(LogCapture& log) {
        auto lines = log.lines();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[PlayTask]: selectTrack, "); });
        return lines;
    }

    TaskUnderTest under;
};

TEST_F(PlayTaskTracks, ChangeToThoseOfTheirKind) {
    load("av.mp4");
    LogCapture log(1);
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_VIDEO, 0));
    ASSERT_TRUE(under.task->play());
    EXPECT_TRUE(under.task->selectTrack(TRACK_KIND_VIDEO, 0));
    EXPECT_TRUE(under.task->selectTrack(TRACK_KIND_AUDIO, 1));
    EXPECT_TRUE(under.task->selectTrack(TRACK_KIND_SUBTITLE, -1));
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_VIDEO, 1));
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_AUDIO, 2));
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_SUBTITLE, 0));
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_OTHER, 0));
    EXPECT_THAT(refusals(log),
                ElementsAre("[PlayTask]: selectTrack, kind:0, number:0, nothing is played\n",
                            "[PlayTask]: selectTrack, kind:0, number:1, there is no such track\n",
                            "[PlayTask]: selectTrack, kind:1, number:2, there is no such track\n",
                            "[PlayTask]: selectTrack, kind:2, number:0, there is no such track\n",
                            "[PlayTask]: selectTrack, kind:3, number:0, only video, sound and subtitles can be "
                            "changed\n"));
}

TEST_F(PlayTaskTracks, ChangeWhereOneOfTheirKindIsPlayed) {
    load("audio.mp4");
    ASSERT_TRUE(under.task->play());
    LogCapture log(1);
    EXPECT_FALSE(under.task->selectTrack(TRACK_KIND_VIDEO, 0));
    EXPECT_THAT(refusals(log),
                ElementsAre("[PlayTask]: selectTrack, kind:0, number:0, no track of this kind is played\n"));
    EXPECT_TRUE(under.task->selectTrack(TRACK_KIND_AUDIO, 0));
}

}  // namespace
}  // namespace kelp::test
