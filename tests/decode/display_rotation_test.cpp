#include "decode/display_rotation.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/display.h>
}

#include <array>

namespace kelp {
namespace {

// The matrix of a clockwise rotation.
std::array<int32_t, 9> matrixOf(double clockwise) {
    std::array<int32_t, 9> matrix{};
    av_display_rotation_set(matrix.data(), clockwise);
    return matrix;
}

TEST(DisplayRotation, ReadsTheClockwiseAngleInWholeDegrees) {
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(0).data()), 0);
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(90).data()), 90);
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(-90).data()), -90);
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(270).data()), -90);
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(44.6).data()), 45);
    EXPECT_DOUBLE_EQ(clockwiseAngle(matrixOf(-1.4).data()), -1);
}

TEST(DisplayRotation, BringsAnAngleIntoOneTurn) {
    EXPECT_DOUBLE_EQ(withinOneTurn(0), 0);
    EXPECT_DOUBLE_EQ(withinOneTurn(90), 90);
    EXPECT_DOUBLE_EQ(withinOneTurn(180), 180);
    EXPECT_DOUBLE_EQ(withinOneTurn(270), 270);
    EXPECT_DOUBLE_EQ(withinOneTurn(359), 359);
    EXPECT_DOUBLE_EQ(withinOneTurn(360), 0);
    EXPECT_DOUBLE_EQ(withinOneTurn(450), 90);
    EXPECT_DOUBLE_EQ(withinOneTurn(-1), 359);
    EXPECT_DOUBLE_EQ(withinOneTurn(-90), 270);
    EXPECT_DOUBLE_EQ(withinOneTurn(-180), 180);
    EXPECT_DOUBLE_EQ(withinOneTurn(-270), 90);
    EXPECT_DOUBLE_EQ(withinOneTurn(-360), 0);
}

TEST(DisplayRotation, TakesAnAngleJustUnderAFullTurnForOne) {
    // 0.0025 turns are 0.9 degrees.
    EXPECT_NEAR(withinOneTurn(359.2), -0.8, 1e-9);
    EXPECT_NEAR(withinOneTurn(359.0), 359.0, 1e-9);
}

TEST(DisplayRotation, GivesEveryWholeAngleAsOneFromZeroTo359) {
    for (int angle = -720; angle <= 720; ++angle) {
        const int32_t rotation = rotationOf(withinOneTurn(angle));
        EXPECT_EQ(rotation, ((angle % 360) + 360) % 360) << angle;
    }
}

TEST(DisplayRotation, TakesAMatrixWithoutAnAngleForNone) {
    const std::array<int32_t, 9> zeros{};
    EXPECT_EQ(rotationOf(withinOneTurn(clockwiseAngle(zeros.data()))), 0);
}

}  // namespace
}  // namespace kelp
