// The ring of bytes under random operations, against a queue that does the same.

#include <algorithm>
#include <deque>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "runtime/cycle_buffer.h"

using kelp::CycleBuffer;
using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr int kMaxOperations = 200;

int cut(int count, size_t limit) {
    return count < 1 ? 0 : static_cast<int>(std::min(static_cast<size_t>(count), limit));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    CycleBuffer ring;
    std::deque<unsigned char> model;
    int capacity = 0;
    unsigned char next = 0;
    for (int i = 0; i < kMaxOperations && !input.empty(); ++i) {
        const uint8_t operation = input.byte();
        // Up to 540 bytes, and some counts below 0.
        const int count = operation % 5 == 4 ? -static_cast<int>(input.byte()) : input.take<uint16_t>() % 540;
        const size_t free = capacity > 0 ? static_cast<size_t>(capacity) - 1 - model.size() : 0;
        switch (operation % 8) {
            case 0:
                if (i == 0 || operation % 16 == 0) {
                    const int made = ring.init(count < 0 ? count : count % 512);
                    require(made == (count < 0 ? -1 : 0), "init refuses sizes below 0 alone");
                    capacity = count < 0 ? 0 : count % 512;
                    model.clear();
                }
                break;
            case 1:
            case 2:
            case 3: {
                // Of its own size, so that a byte taken behind it is seen.
                std::vector<unsigned char> bytes(static_cast<size_t>(std::max(count, 0)));
                for (auto& byte : bytes) {
                    byte = next++;
                }
                const int expected = cut(count, free);
                require(ring.write(bytes.data(), count) == expected, "write takes what fits");
                model.insert(model.end(), bytes.begin(), bytes.begin() + expected);
                break;
            }
            case 4:
            case 5:
            case 6: {
                std::vector<unsigned char> bytes(static_cast<size_t>(std::max(count, 0)));
                const int expected = cut(count, model.size());
                const bool skip = operation >= 200;
                // An empty vector has no address either.
                require(ring.read(skip ? nullptr : bytes.data(), count) == expected, "read gives what is there");
                if (!skip) {
                    require(std::equal(bytes.begin(), bytes.begin() + expected, model.begin()), "bytes in order");
                }
                model.erase(model.begin(), model.begin() + expected);
                break;
            }
            default:
                if (operation >= 240) {
                    require(ring.reset() == 0, "reset gives 0");
                    model.clear();
                }
                break;
        }
        require(ring.availableReadSize() == static_cast<int>(model.size()), "as many bytes as the queue");
        require(ring.availableWriteSize() == capacity - 1 - static_cast<int>(model.size()), "as much room");
    }
    return 0;
}
