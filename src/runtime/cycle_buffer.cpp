#include "runtime/cycle_buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kelp {

namespace {

void copyOut(unsigned char* ring, unsigned char* user, int count) {
    if (ring && user && count > 0) {
        std::memcpy(user, ring, static_cast<size_t>(count));
    }
}

void copyIn(unsigned char* ring, unsigned char* user, int count) {
    if (ring && user && count > 0) {
        std::memcpy(ring, user, static_cast<size_t>(count));
    }
}

}  // namespace

int CycleBuffer::init(int size) {
    storage_.reset(size < 0 ? nullptr : new (std::nothrow) unsigned char[static_cast<size_t>(size)]());
    reset(storage_ ? size : 0);
    return storage_ ? 0 : -1;
}

int CycleBuffer::read(unsigned char* dest, int count) {
    count = std::min(count, left_read_size());
    if (count < 1) {
        return 0;
    }
    readPos_ = walk(readPos_, copyOut, dest, count);
    return count;
}

int CycleBuffer::write(unsigned char* src, int count) {
    count = std::min(count, left_write_size());
    if (count < 1) {
        return 0;
    }
    writePos_ = walk(writePos_, copyIn, src, count);
    return count;
}

int CycleBuffer::reset() {
    return reset(static_cast<int>(end_ - storage_.get()));
}

int CycleBuffer::reset(int size) {
    begin_ = storage_.get();
    end_ = begin_ + size;
    readPos_ = begin_;
    writePos_ = begin_;
    return 0;
}

int CycleBuffer::left_read_size() {
    const auto used = writePos_ - readPos_;
    return static_cast<int>(used >= 0 ? used : (end_ - begin_) + used);
}

int CycleBuffer::left_write_size() {
    const auto gap = readPos_ - writePos_;
    return static_cast<int>((gap > 0 ? gap : (end_ - begin_) + gap) - 1);
}

unsigned char* CycleBuffer::walk(unsigned char* pos, void (*copy)(unsigned char*, unsigned char*, int),
                                 unsigned char* user, int count) {
    if (pos < begin_ || pos > end_) {
        return nullptr;
    }
    const int toEnd = static_cast<int>(end_ - pos);
    if (toEnd > count) {
        copy(pos, user, count);
        return pos + count;
    }
    if (end_ - begin_ <= count) {
        return nullptr;
    }
    copy(pos, user, toEnd);
    copy(begin_, user ? user + toEnd : nullptr, count - toEnd);
    return begin_ + (count - toEnd);
}

}  // namespace kelp
