#pragma once

#include <cstddef>
#include <ctime>

namespace kelp::bench {

// What the functions in front of the libraries' tell CallCounts; `address` is that which the call returns to, and says
// whose call it is. Nothing is counted before CallCounts::start. They take no lock and no memory, and may be called
// before any constructor has run.

void countAllocation(const void* address);
void countCopy(const void* address, size_t bytes);
void countLock(const void* address);
void countWaitAt(const void* address);
// `time` is how long the sleep shall be.
void countSleep(const void* address, const timespec& time);
void countPacket();

// Whether the library asks for the scaling of a picture, and that counts. If so, no allocation, copy or lock counts on
// this thread until `endPicture`.
bool startsPicture(const void* address);
void endPicture();

}  // namespace kelp::bench
