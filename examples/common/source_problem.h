#pragma once

#include <string>

// What can be said of a path before the library looks at it; empty if nothing, and for URLs.
std::string problemOfPath(const std::string& path);

// The text of a line of the player's log, without its date, level and tag.
std::string messageOf(const std::string& logLine);

// The demuxing library's own words in an error message of the player, or the message as it is.
std::string reasonIn(const std::string& message);
