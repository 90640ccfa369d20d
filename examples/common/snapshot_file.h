#pragma once

#include <string>

namespace kelp {
class TarnPlayer;
}

// Writes the picture that is shown into the folder in which the program runs, named after the source and the time in
// milliseconds. The file's name; empty if there is no picture, or it can't be written: the log says why.
std::string saveSnapshot(kelp::TarnPlayer& player, const std::string& source);
