#include <gtest/gtest.h>

#include <utility>

#include "decode/ff_video_decoder_fixture.h"

// Pictures whose times aren't whole milliseconds, over the scripted fakes of the library.
namespace kelp {
namespace {

using test::makePicture;
using test::makeVideoPacket;
using test::videoFakes;

class FFVideoDecoderTimes : public test::FFVideoDecoderFixture {};

TEST_F(FFVideoDecoderTimes, AreNotRounded) {
    openScripted();
    videoFakes().send = [](const AVPacket* packet) {
        videoFakes().pictures.push_back(makePicture(packet->pts));
        return 0;
    };
    constexpr int kPictures = 1000;
    for (const auto& [num, den] : {std::pair{1001, 24000}, std::pair{1001, 60000}, std::pair{1, 120}}) {
        observer_->frames.clear();
        for (int i = 0; i < kPictures; ++i) {
            const auto packet = makeVideoPacket(i);
            packet->timeBaseNum = num;
            packet->timeBaseDen = den;
            decoder_->insertPacket(packet.get());
        }
        drain();
        ASSERT_EQ(observer_->frames.size(), static_cast<size_t>(kPictures)) << den;
        for (int i = 0; i < kPictures; ++i) {
            const auto& frame = *observer_->frames[static_cast<size_t>(i)];
            const int64_t us = frame.pts * 1000 + frame.fractionUs;
            ASSERT_NEAR(static_cast<double>(us), i * 1e6 * num / den, 1) << den << ", picture " << i;
        }
    }
}

}  // namespace
}  // namespace kelp
