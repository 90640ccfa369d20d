#include "runtime/latest_value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <thread>
#include <vector>

namespace kelp {
namespace {

// All its words are the same number, unless it is torn.
struct Wide {
    int64_t words[9]{};
};

Wide wide(int64_t number) {
    Wide value;
    std::fill(std::begin(value.words), std::end(value.words), number);
    return value;
}

TEST(LatestValue, IsNothingAtFirstAndThenWhatWasWrittenLast) {
    LatestValue<Wide> value;
    EXPECT_EQ(value.read().words[8], 0);
    for (int64_t number = 1; number <= 3; ++number) {
        value.write(wide(number));
        EXPECT_EQ(value.read().words[0], number);
        EXPECT_EQ(value.read().words[8], number);
    }
}

TEST(LatestValue, IsNeverTornAndNeverGoesBack) {
    constexpr int64_t kLast = 20'000;
    LatestValue<Wide> value;
    std::vector<std::thread> readers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            for (int64_t last = 0; last < kLast;) {
                const Wide read = value.read();
                for (const int64_t word : read.words) {
                    wrong += word != read.words[0] ? 1 : 0;
                }
                wrong += read.words[0] < last ? 1 : 0;
                last = read.words[0];
            }
        });
    }
    for (int64_t number = 1; number <= kLast; ++number) {
        value.write(wide(number));
    }
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace kelp
