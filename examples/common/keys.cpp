#include "keys.h"

const char* const kKeysUsage =
    "Keys: space or p pauses and resumes, 9 and 0 lower and raise the volume, m mutes, [ and ] lower and raise the\n"
    "speed, from 0.5 to 4, Backspace sets it to 1. Left and right go 5 seconds back and forth, up and down, or left\n"
    "and right with shift, 60, Page Up and Page Down 10 minutes. Home goes to the start, End to the last 3 seconds.\n"
    "q or Escape quits.\n";

KeyCommand commandOf(const SDL_Keysym& key) {
    constexpr int64_t kStepMs = 5000;
    constexpr int64_t kLongStepMs = 60000;
    constexpr int64_t kLongestStepMs = 600000;
    const int64_t step = (key.mod & KMOD_SHIFT) != 0 ? kLongStepMs : kStepMs;
    switch (key.sym) {
        case SDLK_q:
        case SDLK_ESCAPE:
            return {Command::Quit};
        case SDLK_SPACE:
        case SDLK_p:
            return {Command::Pause};
        case SDLK_0:
            return {Command::Louder};
        case SDLK_9:
            return {Command::Softer};
        case SDLK_m:
            return {Command::Mute};
        case SDLK_RIGHTBRACKET:
            return {Command::Faster};
        case SDLK_LEFTBRACKET:
            return {Command::Slower};
        case SDLK_BACKSPACE:
            return {Command::NormalSpeed};
        case SDLK_RIGHT:
            return {Command::SeekBy, step};
        case SDLK_LEFT:
            return {Command::SeekBy, -step};
        case SDLK_UP:
            return {Command::SeekBy, kLongStepMs};
        case SDLK_DOWN:
            return {Command::SeekBy, -kLongStepMs};
        case SDLK_PAGEUP:
            return {Command::SeekBy, kLongestStepMs};
        case SDLK_PAGEDOWN:
            return {Command::SeekBy, -kLongestStepMs};
        case SDLK_HOME:
            return {Command::SeekToStart};
        case SDLK_END:
            return {Command::SeekToEnd};
        case SDLK_PERIOD:
            return {Command::NextPicture};
        case SDLK_COMMA:
            return {Command::PreviousPicture};
        case SDLK_l:
            return {(key.mod & KMOD_SHIFT) != 0 ? Command::LoopPart : Command::Loop};
        case SDLK_a:
            return {Command::NextSound};
        case SDLK_v:
            return {Command::NextVideo};
        case SDLK_j:
            return {Command::NextSubtitles};
        case SDLK_s:
            return {Command::SaveSnapshot};
        case SDLK_d:
            return {Command::NextDevice};
        case SDLK_z:
            return {Command::Fit};
        case SDLK_f:
            return {Command::FullScreen};
        case SDLK_i:
            return {Command::ShowStatistics};
        default:
            return {};
    }
}
