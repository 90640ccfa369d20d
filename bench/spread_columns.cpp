#include "spread_columns.h"

namespace kelp::bench {

std::vector<Column> spreadColumns(std::vector<Column> first, int decimals, const std::vector<Column>& last) {
    first.push_back({"median_ms", "median", decimals});
    first.push_back({"limit_median_ms", "limit", decimals});
    first.push_back({"p99_ms", "99th", decimals});
    first.push_back({"limit_p99_ms", "limit", decimals});
    first.push_back({"worst_ms", "worst", decimals});
    first.push_back({"limit_worst_ms", "limit", decimals});
    first.insert(first.end(), last.begin(), last.end());
    return first;
}

std::vector<Cell> spreadRow(std::vector<Cell> first, const Spread& spread, const Spread& limit,
                            const std::vector<Cell>& last) {
    const auto limitCell = [&](double value) { return limit.count > 0 ? Cell(value) : Cell(); };
    first.insert(first.end(), {spread.median, limitCell(limit.median), spread.p99, limitCell(limit.p99), spread.worst,
                               limitCell(limit.worst)});
    first.insert(first.end(), last.begin(), last.end());
    return first;
}

}  // namespace kelp::bench
