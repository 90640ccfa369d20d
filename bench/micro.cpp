#include "micro.h"

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "beside.h"
#include "table.h"

namespace kelp::bench {

namespace {

// The fields of a line of CSV. Quotes stand around whole fields and never in them.
std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (const char c : line) {
        if (c == '"') {
            quoted = !quoted;
        } else if (c == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

}  // namespace

bool measureMicro(const Settings& settings, Report& report) {
    const std::string rows = settings.folder + "/micro.csv";
    // Its own table goes nowhere: this one has the same figures.
    bool ok = runBeside("kelp_micro",
                        std::string("--benchmark_min_time=") + settings.choose("0.5", "0.1", "0.01") +
                            " --benchmark_out_format=csv --benchmark_out='" + rows + "' >/dev/null 2>&1",
                        rows);
    Table table("micro", "Parts of the library by themselves, in ns",
                {{"benchmark", "benchmark"}, {"time_ns", "time", 1}, {"cpu_ns", "CPU", 1}});
    std::ifstream file(rows);
    bool isBody = false;
    for (std::string line; std::getline(file, line);) {
        // name, iterations, real time, CPU time, unit, ...
        const auto fields = fieldsOf(line);
        if (isBody && fields.size() > 4) {
            std::istringstream times(fields[2] + ' ' + fields[3]);
            double time = 0;
            double cpu = 0;
            ok = ok && fields[4] == "ns" && times >> time >> cpu;
            table.addRow({fields[0], time, cpu});
        }
        isBody = isBody || fields[0] == "name";
    }
    report.add(table);
    return ok && !table.empty();
}

}  // namespace kelp::bench
