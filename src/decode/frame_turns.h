#pragma once

struct AVCodecContext;

namespace kelp {

// The library's frame threads take packets by turns, and a picture comes out only when its thread's turn comes again.
// Whoever waits for one has to give packets to the others, whose pictures take the processors from it. A packet without
// a picture does as well.

// How many turns lie between a packet and its picture; 0 where it isn't known to be safe to fill them: that is H.264
// without fields, one of which alone may have been sent.
int turnsToFill(const AVCodecContext& context);

// Sends a packet that has no picture, behind start codes. What other pictures are stays the same.
void fillTurn(AVCodecContext& context);

}  // namespace kelp
