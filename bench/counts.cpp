#include "counts.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kelp::bench {

bool measureCounts(const Settings& settings, Report& report) {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto program = self.parent_path() / "kelp_counts";
    if (error || !std::filesystem::exists(program, error)) {
        std::printf("kelp_counts isn't built.\n\n");
        return true;
    }
    const std::string rows = settings.folder + "/counts.json";
    std::filesystem::remove(rows, error);
    const std::string command =
        "'" + program.string() + "' --json '" + rows + "'" + (settings.length == Length::Full ? "" : " --quick");
    std::fflush(stdout);
    const bool ok = std::system(command.c_str()) == 0;
    std::printf("\n");
    std::ifstream file(rows);
    std::stringstream text;
    text << file.rdbuf();
    if (text.str().empty()) {
        return false;
    }
    report.add("counts", "Counts of a playback", text.str());
    return ok;
}

}  // namespace kelp::bench
