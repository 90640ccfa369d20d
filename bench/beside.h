#pragma once

#include <string>

namespace kelp::bench {

// The path of a program that stands in this one's folder. Empty, with a line on standard output, if it isn't there.
std::string programBeside(const std::string& name);

// Runs a command line of the shell, whose output comes behind what was printed so far. Whether it ended with success.
bool runCommand(const std::string& command);

}  // namespace kelp::bench
