#pragma once

#include <memory>

namespace kelp {

// A ring of bytes of fixed size. One byte always stays free, so a ring of size n holds n - 1. Before `init` it has no
// block and moves no bytes. Not thread-safe.
class CycleBuffer {
public:
    // Allocates `size` zeroed bytes and empties the ring. 0, or -1 if there is no memory; the ring is then without
    // block.
    int init(int size);

    // Copy up to `count` bytes out of the ring, or into it, and return how many were copied. With a null address the
    // bytes are passed over, not copied.
    int read(unsigned char* dest, int count);
    int write(unsigned char* src, int count);

    int availableReadSize() { return left_read_size(); }
    // -1 without block.
    int availableWriteSize() { return left_write_size(); }

    // Empties the ring; returns 0.
    int reset();

private:
    int reset(int size);
    int left_read_size();
    int left_write_size();
    // Moves `count` bytes between the ring from `pos` on and `user`; the position behind them, or null if the
    // transfer makes no sense.
    unsigned char* walk(unsigned char* pos, void (*copy)(unsigned char*, unsigned char*, int), unsigned char* user,
                        int count);

    unsigned char* begin_ = nullptr;            // first byte of the block
    unsigned char* end_ = nullptr;              // one past the last
    unsigned char* readPos_ = nullptr;          // next byte to read; equal to writePos_ when the ring is empty
    unsigned char* writePos_ = nullptr;         // next byte to write; never rests on end_, nor does readPos_
    std::unique_ptr<unsigned char[]> storage_;  // the block
};

}  // namespace kelp
