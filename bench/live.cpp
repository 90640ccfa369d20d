#include "live.h"

#include <algorithm>
#include <cmath>
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
constexpr double kTogetherMs = 25;     // no ear and no eye tells them apart
constexpr double kMostMedianMs = 10;   // from a flash to its beep
constexpr double kMostApart = 2;       // % that are farther apart

// With each beep and flash of each source.
bool measureTogether(const Settings& settings, Report& report) {
    const std::string path = settings.folder + "/live_together.tsv";
    const bool ok =
        runBeside("live_together",
                  settings.choose("", "--quick ", "--quick ") + ("--rows '" + path + "'") + " >/dev/null 2>&1", path);
    Table table("presentation", "From the sound of a live source to its picture",
                {{"source", "timing and live_delay"},
                 {"median_ms", "median ms", 1},
                 {"least_ms", "least ms", 1},
                 {"most_ms", "most ms", 1},
                 {"together", "% within 25 ms", 0},
                 {"flashes", "flashes", 0},
                 {"gaps", "gaps", 0}});
    bool isWhole = true;  // each row has flashes
    double worstMedian = 0;
    double far = 0;
    double all = 0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string name;
        std::getline(fields, name, '\t');
        double gaps = 0;
        fields >> gaps;
        std::vector<double> apart;
        for (double ms = 0; fields >> ms;) {
            apart.push_back(ms);
        }
        if (apart.empty()) {
            isWhole = false;
            continue;
        }
        const auto count = static_cast<double>(apart.size());
        const auto apartCount =
            static_cast<double>(std::ranges::count_if(apart, [](double ms) { return std::abs(ms) > kTogetherMs; }));
        table.addRow({name, apart[apart.size() / 2], apart.front(), apart.back(), 100 * (count - apartCount) / count,
                      count, gaps});
        if (name.starts_with("exact")) {
            worstMedian = std::max(worstMedian, std::abs(apart[apart.size() / 2]));
            far += apartCount;
            all += count;
        }
    }
    if (all > 0) {
        report.expect("exact and low: from the sound to its picture, ms, median of the worst row", worstMedian,
                      kMostMedianMs);
        report.expect("exact and low: % of flashes more than 25 ms from their sound", 100 * far / all, kMostApart);
    }
    table.setNote(
        "H.264 of 25 pictures a second and AAC over RTSP on the loopback address, both options at their standard, and "
        "`timing` as `exact` with `live_delay` as `low`. Positive: the picture comes later than its sound. The "
        "standstill is one of 3.25 s, and is over for 2 s. In a gap the device gets its sound too late.");
    report.add(table);
    return ok && isWhole && all > 0;
}

}  // namespace

bool measureLive(const Settings& settings, Report& report) {
    const bool together = measureTogether(settings, report);
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
        cells.emplace_back();
        if (isStandstill) {
            cells.back() = back;
        }
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
    return together && ok && !table.empty();
}

}  // namespace kelp::bench
