#include "present/extern_render.h"

#include <gmock/gmock.h>

#include "kelp_player/frame_sink.h"
#include "present/sdl_render.h"
#include "present/video_frames.h"
#include "present/video_render_factory.h"

namespace kelp {
namespace {

using test::makePacketPicture;
using test::makePicture;
using testing::ElementsAre;
using testing::IsEmpty;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class RecordingSink : public ExternFrameSink {
public:
    void onVideoSize(int width, int height, int fps) override {
        calls.push_back("size " + std::to_string(width) + "x" + std::to_string(height) + " fps:" + std::to_string(fps));
    }
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate,
                      int64_t frameTag) override {
        calls.push_back("frame format:" + std::to_string(pixFormat) + " pts:" + std::to_string(pts) +
                        " rotate:" + std::to_string(rotate) + " tag:" + std::to_string(frameTag));
        lastData = data;
        lastLinesize = linesize;
        return answer;
    }

    std::vector<std::string> calls;
    uint8_t** lastData = nullptr;
    int* lastLinesize = nullptr;
    bool answer = true;
};

#pragma GCC diagnostic pop

class ExternRenderTest : public testing::Test {
protected:
    bool init(WindowType type = WINDOW_TYPE_EXTERN) {
        return render.init(type, static_cast<ExternFrameSink*>(&sink), 640, 480, 25);
    }

    RecordingSink sink;
    ExternRender render;
};

TEST(VideoRenderFactory, KnowsThreeTypes) {
    EXPECT_NE(std::dynamic_pointer_cast<SDLRender>(VideoRenderFactory::create(WINDOW_TYPE_QT_WINID)), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<SDLRender>(VideoRenderFactory::create(WINDOW_TYPE_SDL)), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<ExternRender>(VideoRenderFactory::create(WINDOW_TYPE_EXTERN)), nullptr);
}

TEST(VideoRenderFactory, MakesNothingForAnyOtherType) {
    for (const int type : {0, 4, -1, 1000}) {
        EXPECT_EQ(VideoRenderFactory::create(static_cast<WindowType>(type)), nullptr) << type;
    }
}

TEST_F(ExternRenderTest, HasNoSinkForAnotherType) {
    EXPECT_FALSE(init(WINDOW_TYPE_QT_WINID));
    EXPECT_TRUE(render.fillFrame(makePicture(40)));
    EXPECT_FALSE(render.refresh());
    EXPECT_THAT(sink.calls, IsEmpty());
}

TEST_F(ExternRenderTest, TellsTheSizeAheadOfThePicture) {
    EXPECT_TRUE(init());
    EXPECT_THAT(sink.calls, IsEmpty());
    EXPECT_TRUE(render.fillFrame(makePicture(40, 32, 16)));
    EXPECT_THAT(sink.calls, ElementsAre("size 32x16 fps:25"));
    EXPECT_TRUE(render.refresh());
    EXPECT_THAT(sink.calls, ElementsAre("size 32x16 fps:25", "frame format:0 pts:40 rotate:0 tag:0"));
}

TEST_F(ExternRenderTest, TellsASizeOnce) {
    init();
    render.fillFrame(makePicture(40, 32, 16));
    render.fillFrame(makePicture(80, 32, 16));
    render.fillFrame(makePicture(120, 32, 18));
    render.fillFrame(makePicture(160, 34, 18));
    render.fillFrame(makePicture(200, 34, 18));
    EXPECT_THAT(sink.calls, ElementsAre("size 32x16 fps:25", "size 32x18 fps:25", "size 34x18 fps:25"));
}

TEST_F(ExternRenderTest, HandsThePlanesThrough) {
    init();
    const auto frame = makePicture(40, 32, 16);
    frame->rotate = 270;
    frame->frameTag = 77;
    render.fillFrame(frame);
    render.refresh();
    EXPECT_EQ(sink.lastData, frame->data);
    EXPECT_EQ(sink.lastLinesize, frame->linesize);
    EXPECT_EQ(sink.calls.back(), "frame format:0 pts:40 rotate:270 tag:77");
}

TEST_F(ExternRenderTest, TakesAPassThroughFrame) {
    init();
    render.fillFrame(makePacketPicture(40));
    render.refresh();
    render.fillFrame(makePacketPicture(80));
    render.refresh();
    EXPECT_THAT(sink.calls, ElementsAre("size 0x0 fps:25", "frame format:4 pts:40 rotate:0 tag:3600",
                                        "frame format:4 pts:80 rotate:0 tag:7200"));
}

TEST_F(ExternRenderTest, AnswersAsTheSinkDoes) {
    init();
    render.fillFrame(makePicture(40));
    EXPECT_TRUE(render.refresh());
    sink.answer = false;
    EXPECT_FALSE(render.refresh());
    EXPECT_EQ(sink.calls.size(), 3U);  // the size, and the same picture twice
}

TEST_F(ExternRenderTest, ShowsNothingWithoutAPicture) {
    init();
    EXPECT_FALSE(render.refresh());
    EXPECT_TRUE(render.fillFrame(nullptr));
    EXPECT_FALSE(render.refresh());
    EXPECT_THAT(sink.calls, IsEmpty());
}

TEST_F(ExternRenderTest, RemembersTheSizeOfAPictureThatNoSinkHeardOf) {
    render.fillFrame(makePicture(40, 32, 16));
    init();
    render.fillFrame(makePicture(80, 32, 16));
    EXPECT_THAT(sink.calls, IsEmpty());
}

TEST_F(ExternRenderTest, LetsSinkAndPictureGoOnClose) {
    init();
    auto frame = makePicture(40);
    render.fillFrame(frame);
    const std::weak_ptr<VideoFrameInfo> weak = frame;
    frame.reset();
    render.close();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(render.refresh());
    EXPECT_TRUE(render.fillFrame(makePicture(80, 64, 64)));
    EXPECT_FALSE(render.refresh());
    EXPECT_THAT(sink.calls, ElementsAre("size 16x8 fps:25"));
}

TEST_F(ExternRenderTest, HasNoWindowToResize) {
    init();
    EXPECT_TRUE(render.updateWindowSize(800, 600));
    EXPECT_THAT(sink.calls, IsEmpty());
}

}  // namespace
}  // namespace kelp
