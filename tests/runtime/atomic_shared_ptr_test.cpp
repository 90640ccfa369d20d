#include "runtime/atomic_shared_ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace kelp {
namespace {

TEST(AtomicSharedPtr, IsEmptyAtTheStart) {
    AtomicSharedPtr<int> pointer;
    EXPECT_EQ(pointer.load(), nullptr);
}

TEST(AtomicSharedPtr, GivesAReaderAReferenceOfItsOwn) {
    AtomicSharedPtr<int> pointer(std::make_shared<int>(1));
    const auto first = pointer.load();
    pointer.store(std::make_shared<int>(2));
    EXPECT_EQ(*first, 1);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(*pointer.load(), 2);
}

TEST(AtomicSharedPtr, HandsBackWhatAnExchangeReplaces) {
    AtomicSharedPtr<int> pointer(std::make_shared<int>(1));
    EXPECT_EQ(*pointer.exchange(std::make_shared<int>(2)), 1);
    EXPECT_EQ(*pointer.exchange(nullptr), 2);
    EXPECT_EQ(pointer.load(), nullptr);
}

TEST(AtomicSharedPtr, LetsADyingObjectUseThePointer) {
    struct Reader {
        AtomicSharedPtr<Reader>* pointer = nullptr;
        bool* sawNull = nullptr;
        ~Reader() { *sawNull = pointer->load() == nullptr; }
    };
    bool sawNull = false;
    AtomicSharedPtr<Reader> pointer;
    auto reader = std::make_shared<Reader>();
    reader->pointer = &pointer;
    reader->sawNull = &sawNull;
    pointer.store(std::move(reader));
    pointer.store(nullptr);
    EXPECT_TRUE(sawNull);
}

TEST(AtomicSharedPtr, IsReadAndWrittenByManyThreads) {
    struct Pair {
        int first;
        int second;
    };
    constexpr int kRounds = 5000;
    AtomicSharedPtr<Pair> pointer(std::make_shared<Pair>(Pair{0, 0}));
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; ++writer) {
        threads.emplace_back([&, writer] {
            for (int i = 0; i < kRounds; ++i) {
                if (writer == 0) {
                    pointer.store(std::make_shared<Pair>(Pair{i, -i}));
                } else {
                    pointer.exchange(std::make_shared<Pair>(Pair{i, -i}));
                }
            }
        });
    }
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                const auto pair = pointer.load();
                torn += pair->first != -pair->second;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace kelp
