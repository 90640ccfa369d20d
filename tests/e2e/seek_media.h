#pragma once

#include <vector>

#include "e2e/media.h"

namespace kelp::test {

// Files for seeks: numbered pictures, see numberOf, of all rates and orders of storing.
const std::vector<MediaFile>& seekMediaTable();

}  // namespace kelp::test
