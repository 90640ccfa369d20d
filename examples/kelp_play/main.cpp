#include <cstdio>
#include <string>

#include "options.h"
#include "player_app.h"

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "kelp_play: %s\n%s", error.c_str(), usage().c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(usage().c_str(), stdout);
        return 0;
    }
    PlayerApp app(options);
    return app.run();
}
