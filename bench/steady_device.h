#pragma once

namespace kelp::bench {

// From here on this process has a sound device with a clock of its own in place of SDL's, as a sound card has: it asks
// for each block at its time, and one that it asks for late delays none of those behind it. SDL's drivers without a
// card sleep a block after the other, so that what they are late by adds up. Before the first player.
void useSteadyDevice();

}  // namespace kelp::bench
