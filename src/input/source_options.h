#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kelp {

// Demuxer options by key.
using OptionMap = std::map<std::string, std::string>;

// Sets the options that every source starts with, over whatever values they had.
void setDefaultOptions(OptionMap& options);

// Adds what the kind of source asks for, as `path` shows it: wherever ".sdp" stands in it, that counts. A key that is
// set already keeps its value.
void addSourceOptions(OptionMap& options, const std::string& path);

// The same by what the source itself is: neither a folder nor a question makes an SDP of it, and no RTSP source is one.
// A live source that `startsAtOnce` isn't watched for its rate of pictures, some 20 of them, and what was read to learn
// its streams is played, with the key frame that a camera begins with.
void addOwnOptions(OptionMap& options, std::string_view path, bool startsAtOnce);

// Has an RTSP server that is asked for TCP alone be asked for UDP if it refuses that.
void addRtspFallback(OptionMap& options);

// Whether `path` is read over a network at the reader's own pace: the sender waits. What comes as datagrams doesn't.
bool isRemote(std::string_view path);

bool isHttp(std::string_view path);

// Has a server that drops the connection be asked again from there, if `path` names one that can be. A key that is set
// already keeps its value.
void addReconnect(OptionMap& options, std::string_view path);

}  // namespace kelp
