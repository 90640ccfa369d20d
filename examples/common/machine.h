#pragma once

#include <string>

// What can be said of a path before the library looks at it; empty if nothing.
std::string problemOfPath(const std::string& path);

// Chooses SDL's drivers for this machine: one without a screen or a sound device still plays, without a window, or in
// silence at the right pace. Whether there can be windows; not tried if they aren't `windowsWanted`. `soundDevices` are
// to be open at the same time. `program` is the name in what is said about it.
bool chooseDrivers(const char* program, bool windowsWanted, int soundDevices = 1);
