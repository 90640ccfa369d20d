#pragma once

#include <string>

// What can be said of a path before the library looks at it; empty if nothing, and for URLs.
std::string problemOfPath(const std::string& path);

// The text of a line of the player's log, without its date, level and tag.
std::string messageOf(const std::string& logLine);

// Why it failed: the plain words of the player, or of the demuxing library, in an error message, or all of it.
std::string reasonIn(const std::string& message);
