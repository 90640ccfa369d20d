#include "clock/render_timing.h"
#include "clock/timestamp_extrapolator.h"
#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::kStart;
using test::makePicture;
using test::Shown;
using testing::ElementsAre;
using Peer = VideoPlayThreadPeer;

class VideoPlayThreadLive : public test::VideoPlayFixture {
protected:
    VideoPlayThreadLive() {
        extrapolator.init(90000);
        extrapolator.reset(kStart);
        thread.stop();
        live.init(observer);
        live.addWindow(WINDOW_TYPE_QT_WINID, test::handle(2), 640, 480);
    }

    TimestampExtrapolator extrapolator;
    RenderTiming timing{&extrapolator};
    VideoPlayThread live{/*isLive=*/true, &timing};
};

TEST_F(VideoPlayThreadLive, PacesALiveSourceByTheArrivalOfItsPackets) {
    extrapolator.update(0);  // stream time 0 belongs to now; a picture is due 10 ms later
    Peer::output(live, makePicture(0));
    EXPECT_EQ(Peer::frameTimer(live), kStart + 10);
    Peer::output(live, makePicture(40));
    EXPECT_EQ(Peer::frameTimer(live), kStart + 50);
    Peer::output(live, makePicture(80));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{50, 40}, Shown{90, 80}));
}

TEST_F(VideoPlayThreadLive, PacesItByThatWithExactTimingToo) {
    extrapolator.update(0);
    VideoPlayThread exact(/*isLive=*/true, &timing, {.exactTiming = true});
    exact.init(observer);
    exact.addWindow(WINDOW_TYPE_QT_WINID, test::handle(3), 640, 480);
    for (const int64_t pts : {0, 40, 80}) {
        Peer::output(exact, makePicture(pts));
    }
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{50, 40}, Shown{90, 80}));
}

TEST_F(VideoPlayThreadLive, GoesByTheFramesAsLongAsNothingIsKnownOfArrivals) {
    for (const int64_t pts : {0, 40, 80}) {
        Peer::output(live, makePicture(pts));
    }
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}, Shown{80, 80}));
}

TEST_F(VideoPlayThreadLive, FollowsAMasterRatherThanTheArrivals) {
    extrapolator.update(0);
    live.setSyncObject(std::make_shared<test::FakeMaster>(0, /*running=*/true));
    for (const int64_t pts : {0, 40, 80}) {
        Peer::output(live, makePicture(pts));
    }
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}, Shown{80, 80}));
}

TEST_F(VideoPlayThreadLive, AsksForNoArrivalsOfASourceThatIsNotLive) {
    extrapolator.update(0);
    VideoPlayThread file(/*isLive=*/false, &timing);
    Peer::output(file, makePicture(0));
    EXPECT_EQ(Peer::frameTimer(file), kStart);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class SoundThatIsHeard : public test::RecordingObserver {
public:
    int64_t heardMs() override { return FakeTime::nowMs() - kStart + 70; }
};
#pragma GCC diagnostic pop

// The sound of a time is heard 30 ms behind the picture's arrival.
TEST_F(VideoPlayThreadLive, HoldsAPictureForItsSoundOnlyIfBothAreToBeExact) {
    for (const bool isExact : {false, true}) {
        FakeTime::setNowMs(kStart);
        VideoPlayThread low(/*isLive=*/true, &timing, {.exactTiming = isExact, .lowLiveDelay = true});
        low.init(std::make_shared<SoundThatIsHeard>());
        const auto picture = makePicture(100);
        picture->queuedUs = kStart * 1000;
        Peer::output(low, picture);
        EXPECT_EQ(elapsed(), isExact ? 25 : 0);
    }
}

}  // namespace
}  // namespace kelp
