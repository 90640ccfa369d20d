#pragma once

struct AVFormatContext;

namespace kelp {

class StreamChoice;

// What a read that failed means. The end of the input is what it seems to be, or, for a source of which more should
// have come, its loss.
class ReadErrors {
public:
    enum class EndIs { Completion, Loss };
    enum class Verdict {
        ReadOn,   // there is nothing now, or an error that may pass
        Over,     // all was read
        Lost,     // nothing comes any more, though it should
        GivenUp,  // reading has failed too often
    };

    ReadErrors() = default;
    explicit ReadErrors(EndIs endIs) : endIs_(endIs) {}

    // Counts `error`, a result of the library's that is below 0.
    Verdict judge(const StreamChoice& choice, const AVFormatContext& input, int error);
    // A read has worked, or begins anew.
    void forget() { inARow_ = 0; }

private:
    EndIs endIs_ = EndIs::Completion;
    int inARow_ = 0;
};

}  // namespace kelp
