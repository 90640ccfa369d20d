#include "input/read_errors.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "input/stream_choice.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {
namespace {

using EndIs = ReadErrors::EndIs;
using Verdict = ReadErrors::Verdict;

Verdict judge(ReadErrors& errors, int error) {
    const AVFormatContext input{};
    return errors.judge(StreamChoice::of({}), input, error);
}

TEST(ReadErrors, TakeTheEndForCompletionOrForALossByTheirRule) {
    ReadErrors standard;
    ReadErrors live(EndIs::Loss);
    EXPECT_EQ(judge(standard, AVERROR_EOF), Verdict::Over);
    EXPECT_EQ(judge(live, AVERROR_EOF), Verdict::Lost);
}

TEST(ReadErrors, BearFiveInARowAndAsManyOfThoseThatOnlyWantTime) {
    for (const EndIs endIs : {EndIs::Completion, EndIs::Loss}) {
        ReadErrors errors(endIs);
        const Verdict last = endIs == EndIs::Loss ? Verdict::Lost : Verdict::GivenUp;
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(judge(errors, AVERROR(EIO)), Verdict::ReadOn);
                EXPECT_EQ(judge(errors, AVERROR(EAGAIN)), Verdict::ReadOn);
            }
            if (round == 0) {
                errors.forget();
            }
        }
        EXPECT_EQ(judge(errors, AVERROR(EAGAIN)), Verdict::ReadOn);
        EXPECT_EQ(judge(errors, AVERROR(EIO)), last);
    }
}

TEST(ReadErrors, TakeOneTimeoutForTheLossOfALiveSource) {
    ReadErrors standard;
    ReadErrors live(EndIs::Loss);
    EXPECT_EQ(judge(standard, AVERROR(ETIMEDOUT)), Verdict::ReadOn);
    EXPECT_EQ(judge(live, AVERROR(ETIMEDOUT)), Verdict::Lost);
}

}  // namespace
}  // namespace kelp::test
