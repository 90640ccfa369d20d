#pragma once

// Chooses SDL's drivers for this machine: one without a screen or a sound device still plays, without a window, or in
// silence at the right pace. Whether there can be windows; not tried if they aren't `windowsWanted`. `soundDevices` are
// to be open at the same time. `program` is the name in what is said about it.
bool chooseDrivers(const char* program, bool windowsWanted, int soundDevices = 1);

// Chooses SDL's sound driver alone: without a device one that plays in silence. False if there is no device.
bool chooseSoundDriver(int soundDevices = 1);
