#pragma once

#include <SDL.h>

namespace kelp {

// While it lives, SDL converts pictures by one mode, which is the process's: who wants the same one draws at the same
// time, the others take turns, in the order in which they came. The last one that goes leaves SDL's own choice behind.
//
// Nobody waits for a lock of a player's while he has a turn, so that each comes to its end.
class ConversionTurn {
public:
    explicit ConversionTurn(SDL_YUV_CONVERSION_MODE mode);
    ~ConversionTurn();
    ConversionTurn(const ConversionTurn&) = delete;
    ConversionTurn& operator=(const ConversionTurn&) = delete;

    // Whether a picture was drawn; without one SDL's own choice isn't set anew.
    bool drew(bool drawn) { return drawn_ = drawn; }

    // How many wait for their turn, in the process.
    static int waiting();

private:
    const SDL_YUV_CONVERSION_MODE mode_;
    bool drawn_ = false;
};

}  // namespace kelp
