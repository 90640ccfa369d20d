#pragma once

#include <SDL.h>

#include <cstdint>

// What a key asks for.
enum class Command {
    None,
    Quit,
    Pause,
    Louder,
    Softer,
    Mute,
    Faster,
    Slower,
    NormalSpeed,
    SeekBy,
    SeekToStart,
    SeekToEnd,
    NextPicture,
    PreviousPicture,
    Loop,
    LoopPart,
    NextSound,
    NextVideo,
    NextSubtitles,
    SaveSnapshot,
    NextDevice,
    Fit,
    FullScreen,
    ShowStatistics
};

struct KeyCommand {
    Command command = Command::None;
    int64_t ms = 0;  // of SeekBy
};

KeyCommand commandOf(const SDL_Keysym& key);

// The keys that every program has, for a usage text.
extern const char* const kKeysUsage;
