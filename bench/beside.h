#pragma once

#include <string>

namespace kelp::bench {

// Runs a program that stands in this one's folder, with `options` as the shell reads them; `output` is the file that it
// writes, and an old one goes before. What it prints comes behind what was printed so far. False if it fails or isn't
// there; the latter is told on standard output.
bool runBeside(const std::string& program, const std::string& options, const std::string& output);

}  // namespace kelp::bench
