#pragma once

#include <string>
#include <vector>

#include "facts.h"

namespace kelp::bench {

// What came of a row's process.
struct ChildResult {
    bool ok = false;  // it ended with success
    Facts facts;
    double cpuSeconds = 0;  // from its start to its end
    double peakMiB = 0;
};

// Runs this program again with `--row` and `words`, and waits for its end: memory, processor time and the drivers that
// SDL has chosen are those of one row alone.
ChildResult runRow(const std::vector<std::string>& words);

// Runs rows at the same time, each in its process; their processor times mean nothing. For those that leave most of the
// machine alone, and wait for most of the time.
std::vector<ChildResult> runTogether(const std::vector<std::vector<std::string>>& rows);

// Runs rows by turns, so that a slow minute hits each of them: again and again, with `block` rounds at most, until each
// has had `rounds`. To a row's words come how many rounds, and the number of its turn. A result has the facts of all
// turns, and is ok if each was.
std::vector<ChildResult> runByTurns(const std::vector<std::vector<std::string>>& rows, int rounds, int block = 20);

// What the program does that was started so: runs `row` and tells what it found out. Returns the exit status.
int beRow(bool (*row)(const std::vector<std::string>& words, Facts& facts), const std::vector<std::string>& words);

}  // namespace kelp::bench
