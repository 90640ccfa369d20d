#pragma once

// The header leaves the linkage to the platform and says nothing of it here.
extern "C" {
#include "SoundTouchDLL.h"
}
