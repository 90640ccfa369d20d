// What carries pictures, sound and packets: from the pools and back, beside the heap.

#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "decode/video_frame_info.h"
#include "input/media_packet.h"
#include "micro_check.h"
#include "playtask/play_task.h"

namespace kelp::bench {
namespace {

constexpr unsigned int kPictureBytes = 1920 * 1080 * 3 / 2;
constexpr unsigned int kSoundBytes = 1024 * 4;
constexpr size_t kPageBytes = 4096;

// The system gives memory out by the page, when it is first written to.
void touchPages(FrameBuffer& buffer) {
    for (size_t i = 0; i < buffer.size; i += kPageBytes) {
        buffer.data[i] = 1;
    }
    benchmark::ClobberMemory();
}

// Takes a buffer, writes to it and gives it back, over and over.
template <class Take, class Give>
void circulate(benchmark::State& state, Take take, Give give) {
    const FrameBuffer* first = nullptr;
    const FrameBuffer* last = nullptr;
    for (auto _ : state) {
        auto buffer = take();
        touchPages(*buffer);
        first = first ? first : buffer.get();
        last = buffer.get();
        give(std::move(buffer));
    }
    check(state, first && first == last, "the pool doesn't give its buffer again");
}

void PictureFromPool(benchmark::State& state) {
    PlayTask task;
    VideoDecodeThreadObserver& pool = task;
    circulate(
        state, [&] { return pool.allocPixBuffer(kPictureBytes); },
        [&](std::shared_ptr<FrameBuffer> buffer) { pool.freePixBuffer(std::move(buffer)); });
}
BENCHMARK(PictureFromPool);

void PictureFromHeap(benchmark::State& state) {
    PlayTask task;
    VideoDecodeThreadObserver& pool = task;
    unsigned int size = 0;
    for (auto _ : state) {
        const auto buffer = pool.allocPixBuffer(kPictureBytes);
        touchPages(*buffer);
        size = buffer->size;
    }
    check(state, size == kPictureBytes, "no buffer of that size");
}
BENCHMARK(PictureFromHeap);

void SoundFromPool(benchmark::State& state) {
    PlayTask task;
    AudioDecodeThreadObserver& pool = task;
    circulate(
        state, [&] { return pool.allocPcmBuffer(kSoundBytes); },
        [&](std::shared_ptr<FrameBuffer> buffer) { pool.freePcmBuffer(std::move(buffer)); });
}
BENCHMARK(SoundFromPool);

// As a decoder makes one: a buffer of the pool, and the way back to it.
void Frame(benchmark::State& state) {
    PlayTask task;
    VideoDecodeThreadObserver& pool = task;
    int returned = 0;
    const decltype(DecodedFrame::freeBuffer) freeBuffer = [&](std::shared_ptr<FrameBuffer> buffer) {
        ++returned;
        pool.freePixBuffer(std::move(buffer));
    };
    for (auto _ : state) {
        auto frame = std::make_shared<VideoFrameInfo>();
        frame->buffer = pool.allocPixBuffer(kPictureBytes);
        frame->freeBuffer = freeBuffer;
        benchmark::DoNotOptimize(frame.get());
    }
    check(state, returned == state.iterations(), "not every buffer went back");
}
BENCHMARK(Frame);

// As the parser makes one.
void Packet(benchmark::State& state) {
    const std::vector<unsigned char> bytes(static_cast<size_t>(state.range(0)), 7);
    unsigned char last = 0;
    for (auto _ : state) {
        const auto packet = std::make_shared<VideoPacket>();
        packet->data = new unsigned char[bytes.size()];
        std::memcpy(packet->data, bytes.data(), bytes.size());
        packet->size = static_cast<int>(bytes.size());
        benchmark::ClobberMemory();
        last = packet->data[packet->size - 1];
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    check(state, last == 7, "the packet has other bytes");
}
BENCHMARK(Packet)->Arg(512)->Arg(8192)->Arg(131072);

}  // namespace
}  // namespace kelp::bench
