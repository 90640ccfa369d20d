#include "beside.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kelp::bench {

bool runBeside(const std::string& program, const std::string& options, const std::string& output) {
    std::error_code error;
    std::filesystem::remove(output, error);
    const auto path = std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / program;
    if (error || !std::filesystem::exists(path, error)) {
        std::printf("%s isn't built.\n\n", program.c_str());
        return false;
    }
    std::fflush(stdout);
    return std::system(("'" + path.string() + "' " + options).c_str()) == 0;
}

}  // namespace kelp::bench
