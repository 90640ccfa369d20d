#pragma once

#include <cstdint>
#include <deque>

// The values of the last minute, oldest first.
class MinuteCurve {
public:
    static constexpr int64_t kMinuteMs = 60000;

    struct Point {
        int64_t timeMs;
        double value;
    };

    void add(int64_t timeMs, double value) {
        points_.push_back({timeMs, value});
        while (points_.front().timeMs < timeMs - kMinuteMs) {
            points_.pop_front();
        }
    }
    void clear() { points_.clear(); }
    const std::deque<Point>& points() const { return points_; }

private:
    std::deque<Point> points_;
};
