#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "present/render.h"
#include "present/window_list.h"

namespace kelp {

class WindowListPeer {
public:
    static size_t count(WindowList& list) { return list.windowInfos_.size(); }
    // Width and height that the window at `index` counts as known to its renderer.
    static std::pair<int, int> size(WindowList& list, size_t index) {
        const auto& window = list.windowInfos_.at(index);
        return {window.width, window.height};
    }
};

namespace test {

// A picture on a window, and when it got there by the fake time.
struct Shown {
    int64_t timeMs;
    int64_t pts;
    bool operator==(const Shown&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Shown& shown);

inline void* handle(uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

// While it lives, VideoRenderFactory::create makes renderers that only write down what they are told, for the types
// that it knows. One at a time. Needs the mangled name of the factory's `create` among the WRAPped symbols.
class FakeRenders {
public:
    FakeRenders();
    ~FakeRenders();
    FakeRenders(const FakeRenders&) = delete;
    FakeRenders& operator=(const FakeRenders&) = delete;

    // All calls in order, as "1 init type:1 window:0x1 640x480 fps:25", "1 size 800x600", "1 fit keep", "1 fill 40", "1
    // refresh", "1 close", "1 leave", "1 gone" (destroyed), with the number of the renderer, counted from 1.
    std::vector<std::string> calls();
    void clearCalls();

    // How often `text` was called in all, cleared or not.
    int countCalls(const std::string& text);

    // Every `refresh` of a renderer that has a picture, and those alone that brought a new picture there.
    std::vector<Shown> refreshes(int number = 1);
    std::vector<Shown> pictures(int number = 1);

    // Wait in real time until `text` was called `count` times in all, or until a picture was shown.
    bool waitFor(const std::string& text, int count = 1);
    bool waitForPicture(int64_t pts, int number = 1);

    // Called in `refresh`, after it was written down and without a lock, with the picture's time. Set before a thread
    // draws.
    std::function<void(int64_t pts)> onRefresh = [](int64_t) {};

private:
    friend class FakeRender;
    void add(const std::string& call);
    void addShown(int number, int64_t pts);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    std::map<std::string, int> counts_;         // by call
    std::vector<std::pair<int, Shown>> shown_;  // with the renderer's number
};

}  // namespace test
}  // namespace kelp
