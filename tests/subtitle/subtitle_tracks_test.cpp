#include "subtitle/subtitle_tracks.h"

#include <gtest/gtest.h>

#include <memory>

namespace kelp::test {
namespace {

TEST(SubtitleTracks, ForgetsAllThatWasAddedAndChosen) {
    SubtitleTracks tracks;
    const auto track = std::make_shared<SubtitleTrack>(SubtitleTrack::Head{});
    tracks.add(3, track);
    tracks.choose(3);
    EXPECT_EQ(tracks.current(), track);
    EXPECT_TRUE(tracks.isAny());
    EXPECT_TRUE(tracks.isWhole(3));

    tracks.forget();
    EXPECT_EQ(tracks.current(), nullptr);
    EXPECT_FALSE(tracks.isAny());
    EXPECT_FALSE(tracks.isWhole(3));

    tracks.choose(3);
    EXPECT_EQ(tracks.current(), nullptr);
}

TEST(SubtitleTracks, ChoosesNothingByForgetting) {
    SubtitleTracks tracks;
    tracks.choose(3);
    tracks.forget();
    tracks.add(3, std::make_shared<SubtitleTrack>(SubtitleTrack::Head{}));
    EXPECT_EQ(tracks.current(), nullptr);
}

}  // namespace
}  // namespace kelp::test
