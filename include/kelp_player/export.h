#pragma once

// Marks what the shared library exports. A host needs to define nothing.
#if defined(_WIN32)
#if defined(KELP_PLAYER_BUILD)
#define KELP_PLAYER_API __declspec(dllexport)
#else
#define KELP_PLAYER_API __declspec(dllimport)
#endif
#else
#define KELP_PLAYER_API __attribute__((visibility("default")))
#endif
