#include "input/read_errors.h"

#include <cerrno>

#include "input/stream_choice.h"

extern "C" {
#include <libavutil/error.h>
}

namespace kelp {
namespace {

constexpr int kMaxReadErrors = 5;  // in a row; one more and reading is given up

}  // namespace

ReadErrors::Verdict ReadErrors::judge(const StreamChoice& choice, const AVFormatContext& input, int error) {
    const bool isLoss = endIs_ == EndIs::Loss;
    if (choice.isEnd(input, error)) {
        return isLoss ? Verdict::Lost : Verdict::Over;
    }
    if (error == AVERROR(EAGAIN)) {
        return Verdict::ReadOn;
    }
    // Where the sender has been silent for as long as the host bears it, asking again takes as long each time.
    if (isLoss && error == AVERROR(ETIMEDOUT)) {
        return Verdict::Lost;
    }
    if (++inARow_ <= kMaxReadErrors) {
        return Verdict::ReadOn;
    }
    return isLoss ? Verdict::Lost : Verdict::GivenUp;
}

}  // namespace kelp
