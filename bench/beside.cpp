#include "beside.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kelp::bench {

std::string programBeside(const std::string& name) {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto program = self.parent_path() / name;
    if (error || !std::filesystem::exists(program, error)) {
        std::printf("%s isn't built.\n\n", name.c_str());
        return {};
    }
    return program.string();
}

bool runCommand(const std::string& command) {
    std::fflush(stdout);
    return std::system(command.c_str()) == 0;
}

}  // namespace kelp::bench
