#pragma once

#include <string>

namespace kelp::bench {

// How long a run may take. `Smoke` only shows that everything can be measured: its figures mean nothing.
enum class Length { Full, Quick, Smoke };

// What the command line asks for.
struct Settings {
    std::string folder = "build";  // for the clips and the figures
    std::string file;              // to play in `cost`, `latency` and `steps`; empty: clips of our own
    int seconds = 0;               // of the film that `cost` plays, or of `screens`; 0: as many as the length says
    Length length = Length::Full;

    template <class Value>
    Value choose(Value full, Value quick, Value smoke) const {
        return length == Length::Full ? full : length == Length::Quick ? quick : smoke;
    }
};

}  // namespace kelp::bench
