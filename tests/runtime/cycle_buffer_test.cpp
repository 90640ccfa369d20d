#include "runtime/cycle_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "runtime/allocation_counter.h"
#include "runtime/byte_sequence.h"
#include "support/private_member.h"

namespace kelp {

namespace test {

using RingPosition = unsigned char* CycleBuffer::*;
RingPosition privateMember(PrivateMember<struct BeginTag, RingPosition>);
RingPosition privateMember(PrivateMember<struct ReadPosTag, RingPosition>);
RingPosition privateMember(PrivateMember<struct WritePosTag, RingPosition>);
template struct ExposeMember<struct BeginTag, &CycleBuffer::begin_>;
template struct ExposeMember<struct ReadPosTag, &CycleBuffer::readPos_>;
template struct ExposeMember<struct WritePosTag, &CycleBuffer::writePos_>;

}  // namespace test

namespace {

using test::AllocationCounter;
using test::Bytes;
using test::PrivateMember;
using test::sequence;

unsigned char* begin(CycleBuffer& ring) {
    return ring.*privateMember(PrivateMember<test::BeginTag, test::RingPosition>{});
}

// Positions counted from the block.
int readPosition(CycleBuffer& ring) {
    return static_cast<int>(ring.*privateMember(PrivateMember<test::ReadPosTag, test::RingPosition>{}) - begin(ring));
}

int writePosition(CycleBuffer& ring) {
    return static_cast<int>(ring.*privateMember(PrivateMember<test::WritePosTag, test::RingPosition>{}) - begin(ring));
}

// `count` bytes that count up from `first`.
int put(CycleBuffer& ring, Bytes bytes) {
    return ring.write(bytes.data(), static_cast<int>(bytes.size()));
}

Bytes take(CycleBuffer& ring, int count) {
    Bytes bytes(static_cast<size_t>(count), 0xEE);
    bytes.resize(static_cast<size_t>(ring.read(bytes.data(), count)));
    return bytes;
}

TEST(CycleBuffer, StartsEmptyAndZeroed) {
    CycleBuffer ring;
    EXPECT_EQ(ring.init(8), 0);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(ring.availableWriteSize(), 7);
    EXPECT_TRUE(std::all_of(begin(ring), begin(ring) + 8, [](unsigned char byte) { return byte == 0; }));
}

TEST(CycleBuffer, KeepsOneByteFree) {
    CycleBuffer ring;
    ring.init(8);
    EXPECT_EQ(put(ring, sequence(10)), 7);
    EXPECT_EQ(put(ring, sequence(1)), 0);
    EXPECT_EQ(ring.availableReadSize(), 7);
    EXPECT_EQ(ring.availableWriteSize(), 0);
    EXPECT_EQ(take(ring, 10), sequence(7));
}

TEST(CycleBuffer, WrapsAWriteThatEndsExactlyAtTheEnd) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(5));
    take(ring, 5);
    EXPECT_EQ(put(ring, sequence(3)), 3);
    EXPECT_EQ(writePosition(ring), 0);
    EXPECT_EQ(ring.availableReadSize(), 3);
    EXPECT_EQ(ring.availableWriteSize(), 4);
    EXPECT_EQ(take(ring, 3), sequence(3));
    EXPECT_EQ(readPosition(ring), 0);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(ring.availableWriteSize(), 7);
}

TEST(CycleBuffer, ReadsWhatIsThereWhenMoreIsAskedFor) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(3));
    EXPECT_EQ(take(ring, 100), sequence(3));
}

TEST(CycleBuffer, ReadsNothingFromAnEmptyRingAndStaysWhereItIs) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(5));
    take(ring, 5);
    unsigned char untouched = 0xEE;
    EXPECT_EQ(ring.read(&untouched, 1), 0);
    EXPECT_EQ(untouched, 0xEE);
    EXPECT_EQ(readPosition(ring), 5);
    EXPECT_EQ(writePosition(ring), 5);
}

TEST(CycleBuffer, ReadsAcrossTheEndInOrder) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(6));
    take(ring, 6);
    EXPECT_EQ(put(ring, sequence(5, 100)), 5);
    EXPECT_EQ(writePosition(ring), 3);
    EXPECT_EQ(ring.availableReadSize(), 5);
    EXPECT_EQ(ring.availableWriteSize(), 2);
    EXPECT_EQ(take(ring, 5), sequence(5, 100));
    EXPECT_EQ(readPosition(ring), 3);
}

TEST(CycleBuffer, IsEmptiedByAResetThatLeavesTheBytes) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(6));
    take(ring, 2);
    EXPECT_EQ(ring.reset(), 0);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(ring.availableWriteSize(), 7);
    EXPECT_EQ(readPosition(ring), 0);
    EXPECT_EQ(Bytes(begin(ring), begin(ring) + 6), sequence(6));
}

TEST(CycleBuffer, PassesOverBytesWithoutAnAddress) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(7));
    EXPECT_EQ(ring.read(nullptr, 6), 6);
    EXPECT_EQ(take(ring, 7), Bytes{7});
    EXPECT_EQ(ring.write(nullptr, 5), 5);  // across the end
    EXPECT_EQ(ring.availableReadSize(), 5);
    EXPECT_EQ(ring.read(nullptr, 5), 5);
    EXPECT_EQ(readPosition(ring), 4);
}

TEST(CycleBuffer, MovesNothingForACountBelowOne) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(3));
    unsigned char byte = 9;
    EXPECT_EQ(ring.read(&byte, 0), 0);
    EXPECT_EQ(ring.read(&byte, -4), 0);
    EXPECT_EQ(ring.write(&byte, 0), 0);
    EXPECT_EQ(ring.write(&byte, -4), 0);
    EXPECT_EQ(take(ring, 8), sequence(3));
}

TEST(CycleBuffer, MovesNothingWithoutABlock) {
    CycleBuffer ring;
    unsigned char byte = 9;
    EXPECT_EQ(ring.read(&byte, 1), 0);
    EXPECT_EQ(ring.write(&byte, 1), 0);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(ring.reset(), 0);
}

TEST(CycleBuffer, MovesNothingWithRoomForTheFreeByteOnly) {
    CycleBuffer ring;
    EXPECT_EQ(ring.init(1), 0);
    unsigned char byte = 9;
    EXPECT_EQ(ring.write(&byte, 1), 0);
    EXPECT_EQ(ring.read(&byte, 1), 0);
    EXPECT_EQ(ring.availableWriteSize(), 0);
}

TEST(CycleBuffer, ReportsFailedMemoryAndIsThenWithoutBlock) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(3));
    AllocationCounter::failNext();
    EXPECT_EQ(ring.init(16), -1);
    EXPECT_EQ(begin(ring), nullptr);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(put(ring, sequence(3)), 0);
    EXPECT_EQ(ring.init(-1), -1);
    EXPECT_EQ(ring.init(4), 0);
    EXPECT_EQ(put(ring, sequence(4)), 3);
}

TEST(CycleBuffer, StartsOverWithAnotherSize) {
    CycleBuffer ring;
    ring.init(8);
    put(ring, sequence(6));
    EXPECT_EQ(ring.init(4), 0);
    EXPECT_EQ(ring.availableReadSize(), 0);
    EXPECT_EQ(ring.availableWriteSize(), 3);
}

TEST(CycleBuffer, BehavesAsAQueueInAnyOrderOfTransfers) {
    std::mt19937 random(7);  // the same sequence in every run
    for (const int size : {2, 3, 8, 13, 64}) {
        CycleBuffer ring;
        ring.init(size);
        std::deque<unsigned char> model;
        unsigned char next = 0;
        for (int step = 0; step < 5000; ++step) {
            const int count = static_cast<int>(random() % static_cast<unsigned>(size + 3));
            if (random() % 2 == 0) {
                const Bytes bytes = sequence(count, next);
                const int written = put(ring, bytes);
                ASSERT_EQ(written, std::min(count, size - 1 - static_cast<int>(model.size())));
                model.insert(model.end(), bytes.begin(), bytes.begin() + written);
                next = static_cast<unsigned char>(next + written);
            } else {
                const Bytes bytes = take(ring, count);
                ASSERT_EQ(bytes.size(), std::min(static_cast<size_t>(count), model.size()));
                ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), model.begin()));
                model.erase(model.begin(), model.begin() + static_cast<int>(bytes.size()));
            }
            ASSERT_EQ(ring.availableReadSize(), static_cast<int>(model.size()));
            ASSERT_EQ(ring.availableWriteSize(), size - 1 - static_cast<int>(model.size()));
        }
    }
}

TEST(CycleBuffer, AllocatesNothingAfterInit) {
    CycleBuffer ring;
    ring.init(8);
    unsigned char bytes[5] = {1, 2, 3, 4, 5};
    const int64_t before = AllocationCounter::count();
    for (int i = 0; i < 20; ++i) {
        ring.write(bytes, 5);
        ring.read(bytes, 5);
        ring.reset();
    }
    EXPECT_EQ(AllocationCounter::count(), before);
}

}  // namespace
}  // namespace kelp
