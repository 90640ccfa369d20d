#pragma once

#include <vector>

#include "e2e/media.h"

namespace kelp::test {

// Files that are odd, not broken, a second or three long, for the table of media files.
const std::vector<MediaFile>& oddMediaTable();

}  // namespace kelp::test
