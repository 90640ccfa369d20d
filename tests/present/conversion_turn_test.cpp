#include "present/conversion_turn.h"

#include <gtest/gtest.h>

#include <chrono>
#include <new>
#include <optional>
#include <thread>
#include <vector>

// Who may draw when, among those whose pictures SDL converts by different modes.

namespace kelp::test {
namespace {

class ConversionTurnTest : public testing::Test {
protected:
    ~ConversionTurnTest() override {
        for (auto& thread : threads_) {
            thread.join();
        }
    }

    // Draws by `mode` on a thread of its own, and comes back when that one waits for its turn.
    void waitFor(SDL_YUV_CONVERSION_MODE mode) {
        const int before = ConversionTurn::waiting();
        threads_.emplace_back([this, mode] {
            const ConversionTurn turn(mode);
            drawnBy_.push_back(SDL_GetYUVConversionMode());
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (ConversionTurn::waiting() == before) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "it doesn't wait";
            std::this_thread::yield();
        }
    }

    // The modes that SDL had when the threads drew, in their order: of different modes, so one at a time.
    std::vector<SDL_YUV_CONVERSION_MODE> drawn() {
        for (auto& thread : threads_) {
            thread.join();
        }
        threads_.clear();
        return drawnBy_;
    }

private:
    std::vector<std::thread> threads_;
    std::vector<SDL_YUV_CONVERSION_MODE> drawnBy_;
};

TEST_F(ConversionTurnTest, LetsOthersOfTheSameModeDrawAtTheSameTime) {
    std::optional<ConversionTurn> first(std::in_place, SDL_YUV_CONVERSION_JPEG);
    {
        const ConversionTurn second(SDL_YUV_CONVERSION_JPEG);
        EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_JPEG);
    }
    EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_JPEG);  // the first one still draws
    first.reset();
    EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_AUTOMATIC);
}

TEST_F(ConversionTurnTest, LetsAnotherModeWait) {
    std::optional<ConversionTurn> turn(std::in_place, SDL_YUV_CONVERSION_JPEG);
    waitFor(SDL_YUV_CONVERSION_BT709);
    EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_JPEG);
    turn.reset();
    EXPECT_EQ(drawn(), std::vector{SDL_YUV_CONVERSION_BT709});
    EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_AUTOMATIC);
}

TEST_F(ConversionTurnTest, GivesTurnsInTheOrderOfComing) {
    std::optional<ConversionTurn> turn(std::in_place, SDL_YUV_CONVERSION_JPEG);
    waitFor(SDL_YUV_CONVERSION_BT709);
    waitFor(SDL_YUV_CONVERSION_JPEG);  // not past the one that waits, or this might wait for ever
    waitFor(SDL_YUV_CONVERSION_BT601);
    turn.reset();
    EXPECT_EQ(drawn(), (std::vector{SDL_YUV_CONVERSION_BT709, SDL_YUV_CONVERSION_JPEG, SDL_YUV_CONVERSION_BT601}));
}

TEST_F(ConversionTurnTest, GoesToTheNextWhoeverThrows) {
    try {
        const ConversionTurn turn(SDL_YUV_CONVERSION_JPEG);
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
        const ConversionTurn turn(SDL_YUV_CONVERSION_BT709);
        EXPECT_EQ(SDL_GetYUVConversionMode(), SDL_YUV_CONVERSION_BT709);
    }
}

}  // namespace
}  // namespace kelp::test
