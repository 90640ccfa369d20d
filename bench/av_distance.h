#pragma once

// Prints a table: how far picture and sound are apart, for each master at speed 1 and 2. Plays a clip of flashes and
// beeps, made with the ffmpeg command, and measures what comes out of the frame sink and of the sound device. False if
// that fails.
bool printAvDistance();
