#pragma once

// Prints one table: what the UDP classes carry over the loopback address, and what that costs. False if it can't be
// measured.
bool udpBench();
