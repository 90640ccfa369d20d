#pragma once

#include <map>
#include <string>

namespace kelp {

// Demuxer options by key.
using OptionMap = std::map<std::string, std::string>;

// Sets the options that every source starts with, over whatever values they had.
void setDefaultOptions(OptionMap& options);

// Adds what the kind of source asks for, as `path` shows it. A key that is set already keeps its value.
void addSourceOptions(OptionMap& options, const std::string& path);

// Has an RTSP server that is asked for TCP alone be asked for UDP if it refuses that.
void addRtspFallback(OptionMap& options);

}  // namespace kelp
