#include "live.h"

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "beside.h"
#include "table.h"

namespace kelp::bench {

namespace {

constexpr double kMostMoreMs = 10;     // than the bare loop, in the median
constexpr double kMostMoreMsP99 = 15;  // in the 99th percentile
constexpr double kMostBackMs = 2000;   // until the delay is what it was before a standstill

}  // namespace

bool measureLive(const Settings& settings, Report& report) {
    const std::string path = settings.folder + "/live.tsv";
    const bool ok =
        runBeside("live_delay",
                  settings.choose("", "--quick ", "--quick ") + ("--rows '" + path + "'") + " >/dev/null 2>&1", path);
    Table table("presentation", "From the making of a live picture of 320x180, 25 a second, to the sink, in ms",
                {{"source", "live source"},
                 {"median_ms", "median", 1},
                 {"p99_ms", "99th", 1},
                 {"worst_ms", "worst", 1},
                 {"jitter_ms", "jitter", 1},
                 {"jitter_p99_ms", "jitter, 99th", 1},
                 {"pictures", "pictures"},
                 {"back_ms", "back after"}});
    struct Delay {
        double median, p99;
    };
    std::map<std::string, Delay> bare;  // by source
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string name;
        std::getline(fields, name, '\t');
        double figures[6] = {};
        for (double& figure : figures) {
            fields >> figure;
        }
        double back = 0;
        const bool isStandstill = static_cast<bool>(fields >> back);
        std::vector<Cell> cells{name};
        cells.insert(cells.end(), std::begin(figures), std::end(figures));
        cells.push_back(isStandstill ? Cell(back) : Cell());
        table.addRow(cells);

        const std::string source = name.substr(0, name.rfind(", "));
        const Delay delay{figures[0], figures[1]};
        const bool isLow = name.ends_with(", low");
        if (name.ends_with(", bare loop")) {
            bare[source] = delay;
        } else if (isLow && isStandstill) {
            report.expect(name + ": back after, ms", back, kMostBackMs);
        } else if (isLow && bare.contains(source)) {
            report.expect(name + ": delay, ms, median", delay.median, bare[source].median + kMostMoreMs);
            report.expect(name + ": delay, ms, 99th", delay.p99, bare[source].p99 + kMostMoreMsP99);
        }
    }
    table.setNote(
        "Jitter is how much the distance between two pictures differs from that of their making. The bare loop reads, "
        "decodes and shows at once. Behind a standstill of the connection of 3 s, what was sent meanwhile comes in one "
        "go; the delay is back when nine of ten that follow are within 20 ms of the median before.");
    report.add(table);
    return ok && !table.empty();
}

}  // namespace kelp::bench
