#pragma once

#include <cstdint>

namespace kelp {

// The clockwise angle that a display matrix of nine values asks for, in whole degrees, of either sign.
double clockwiseAngle(const int32_t* matrix);

// `theta` brought into one turn: a whole angle comes out from 0 to 359.
double withinOneTurn(double theta);

// The angle as a frame carries it. A matrix that has no angle gives 0.
int32_t rotationOf(double theta);

}  // namespace kelp
