#include <cstdio>
#include <string>

#include "options.h"
#include "restreamer.h"

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "restream: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Restreamer restreamer(options);
    return restreamer.run();
}
