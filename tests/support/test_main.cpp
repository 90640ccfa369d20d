#include <gmock/gmock.h>

#include <cstdlib>

// No test needs a screen or a sound device unless it asks for one itself.
int main(int argc, char** argv) {
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
