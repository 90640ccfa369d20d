#pragma once

#include <string>

// The name of a file that forgets what is written to it, for SDL's disk driver, in this process alone. It is a pipe
// that a thread empties: not every release of SDL opens /dev/null for writing. Empty if there is no pipe to be had.
const std::string& soundDrain();
