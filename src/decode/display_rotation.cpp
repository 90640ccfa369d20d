#include "decode/display_rotation.h"

#include <cmath>

extern "C" {
#include <libavutil/display.h>
}

namespace kelp {

constexpr double kFullTurn = 360.0;
// Lets an angle just under a full turn count as one.
constexpr double kTurnTolerance = 0.0025;

double clockwiseAngle(const int32_t* matrix) {
    return -std::round(av_display_rotation_get(matrix));
}

double withinOneTurn(double theta) {
    return theta - std::floor(theta / kFullTurn + kTurnTolerance) * kFullTurn;
}

int32_t rotationOf(double theta) {
    return std::isfinite(theta) ? static_cast<int32_t>(theta) : 0;
}

}  // namespace kelp
