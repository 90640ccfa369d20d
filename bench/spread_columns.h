#pragma once

#include <vector>

#include "measures.h"
#include "table.h"

namespace kelp::bench {

// The columns of a table of spreads in milliseconds: `first`, then median, 99th percentile and worst, each beside that
// of its limit, then `last`.
std::vector<Column> spreadColumns(std::vector<Column> first, int decimals, const std::vector<Column>& last = {});

// A row of them. A limit without values leaves its cells empty.
std::vector<Cell> spreadRow(std::vector<Cell> first, const Spread& spread, const Spread& limit,
                            const std::vector<Cell>& last = {});

}  // namespace kelp::bench
