#pragma once

#include <memory>

struct AVPacket;

namespace kelp {

struct FreeHeldPacket {
    void operator()(AVPacket* packet) const;
};
// A packet that was read and is to be handed on later, if at all.
using HeldPacket = std::unique_ptr<AVPacket, FreeHeldPacket>;

}  // namespace kelp
