#include "present/fake_renders.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>

#include "present/video_render_factory.h"
#include "support/fake_time.h"

// Stands in for kelp::VideoRenderFactory::create.
extern "C" std::shared_ptr<kelp::IRender> __real__ZN4kelp18VideoRenderFactory6createENS_10WindowTypeE(kelp::WindowType);
extern "C" std::shared_ptr<kelp::IRender> __wrap__ZN4kelp18VideoRenderFactory6createENS_10WindowTypeE(kelp::WindowType);

namespace kelp::test {

namespace {

std::atomic<FakeRenders*> current{nullptr};
std::atomic<int> made{0};

}  // namespace

class FakeRender : public IRender {
public:
    FakeRender() : number_(++made) {}
    ~FakeRender() override { add("gone"); }

    bool init(WindowType type, void* window, int width, int height, int fps) override {
        char text[96];
        std::snprintf(text, sizeof(text), "init type:%d window:%p %dx%d fps:%d", type, window, width, height, fps);
        add(text);
        return false;  // nobody looks
    }
    bool updateWindowSize(int width, int height) override {
        add("size " + std::to_string(width) + "x" + std::to_string(height));
        return false;
    }
    void setFit(PictureFit fit) override { add(fit == PictureFit::Keep ? "fit keep" : "fit fill"); }
    bool fillFrame(std::shared_ptr<VideoFrameInfo> frame) override {
        frame_ = std::move(frame);
        add("fill " + std::to_string(frame_->pts));
        return false;
    }
    bool refresh() override {
        auto* fakes = current.load();
        if (fakes && frame_) {
            fakes->addShown(number_, frame_->pts);
        }
        add("refresh");
        if (fakes && frame_) {
            const auto hook = fakes->onRefresh;  // may replace itself
            hook(frame_->pts);
        }
        return false;
    }
    void close() override {
        frame_.reset();
        add("close");
    }
    void leave() override {
        frame_.reset();
        add("leave");
    }

private:
    void add(const std::string& call) {
        if (auto* fakes = current.load()) {
            fakes->add(std::to_string(number_) + " " + call);
        }
    }

    const int number_;
    std::shared_ptr<VideoFrameInfo> frame_;
};

std::ostream& operator<<(std::ostream& out, const Shown& shown) {
    return out << "{" << shown.timeMs << ", " << shown.pts << "}";
}

FakeRenders::FakeRenders() {
    made = 0;
    current = this;
}

FakeRenders::~FakeRenders() {
    current = nullptr;
}

std::vector<std::string> FakeRenders::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

void FakeRenders::clearCalls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

int FakeRenders::countCalls(const std::string& text) {
    std::lock_guard lock(mutex_);
    return counts_[text];
}

std::vector<Shown> FakeRenders::refreshes(int number) {
    std::lock_guard lock(mutex_);
    std::vector<Shown> found;
    for (const auto& [renderer, shown] : shown_) {
        if (renderer == number) {
            found.push_back(shown);
        }
    }
    return found;
}

std::vector<Shown> FakeRenders::pictures(int number) {
    auto found = refreshes(number);
    const auto end =
        std::unique(found.begin(), found.end(), [](const Shown& a, const Shown& b) { return a.pts == b.pts; });
    found.erase(end, found.end());
    return found;
}

bool FakeRenders::waitFor(const std::string& text, int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return counts_[text] >= count; });
}

bool FakeRenders::waitForPicture(int64_t pts, int number) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] {
        return std::any_of(shown_.begin(), shown_.end(),
                           [&](const auto& entry) { return entry.first == number && entry.second.pts == pts; });
    });
}

void FakeRenders::add(const std::string& call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(call);
    ++counts_[call];
    changed_.notify_all();
}

void FakeRenders::addShown(int number, int64_t pts) {
    std::lock_guard lock(mutex_);
    shown_.push_back({number, {FakeTime::nowMs(), pts}});
}

}  // namespace kelp::test

std::shared_ptr<kelp::IRender> __wrap__ZN4kelp18VideoRenderFactory6createENS_10WindowTypeE(kelp::WindowType type) {
    auto render = __real__ZN4kelp18VideoRenderFactory6createENS_10WindowTypeE(type);
    if (render && kelp::test::current.load()) {
        return std::make_shared<kelp::test::FakeRender>();
    }
    return render;
}
