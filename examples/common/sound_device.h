#pragma once

// Lets players play in silence, at the right pace, on a machine without a sound device: without one SDL, and with it
// the player, doesn't start. To be called before the first player and before other threads exist. False if there is no
// device. A driver that the user chose by SDL_AUDIODRIVER stays.
bool chooseSoundDriver();
