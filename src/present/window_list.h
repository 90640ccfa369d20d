#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "decode/video_frame_info.h"
#include "kelp_player/types.h"
#include "runtime/picture_fit.h"

namespace kelp {

class IRender;
class SubtitleScreen;

// The windows of a playback, each with a renderer of its own, and what is drawn on them.
//
// `add`, `remove`, `pause`, `resize` and `setFit` come from any thread and only write down what is wanted: a drawing
// carries it out. They don't wait for a picture being drawn, but for a window that is being closed. `draw` and
// `closeAll`, and with them the renderers, belong to one thread.
class WindowList {
public:
    // `isStopped`: whether a drawing that runs is to leave the windows that remain.
    explicit WindowList(std::function<bool()> isStopped) : isStopped_(std::move(isStopped)) {}

    // What the windows show over the pictures; before the first drawing.
    void setSubtitles(std::shared_ptr<SubtitleScreen> subtitles) { subtitles_ = std::move(subtitles); }

    // For a window that is known already only the size is taken over, and a removal that has not been carried out yet
    // is taken back.
    void add(WindowType type, void* window, int width, int height);
    void remove(void* window);
    void pause(void* window, bool paused);
    void resize(void* window, int width, int height);

    // How the pictures lie in all of them, those to come too; from the next drawing on. Any thread.
    void setFit(PictureFit fit);

    // Brings `frame`, or what is there if it is empty, to every window that doesn't show it as it is. `fps` is for the
    // renderers of new windows. In how many milliseconds the first of them wants to be drawn again; 0 for each time.
    int draw(const std::shared_ptr<VideoFrameInfo>& frame, int fps);

    // What stays on the windows.
    enum class Leaving { Black, Picture };
    void closeAll(Leaving leaving = Leaving::Black);

private:
    friend class WindowListPeer;  // lets tests look at the list

    struct WindowInfo {
        WindowType type;
        void* handle;  // the key of the list
        int width;     // size the renderer knows of, in pixels
        int height;
        int newWidth;  // size asked for
        int newHeight;
        bool removed;                     // goes at the next drawing
        bool paused;                      // takes no more pictures
        bool wantsDrawing;                // whatever its renderer keeps: its size or its pause may have changed
        PictureFit fit;                   // that the renderer knows of
        std::shared_ptr<IRender> render;  // empty until the first drawing
    };

    // A window as a drawing found it.
    struct UpdatedWindowInfo {
        WindowInfo window;
        bool created;    // the renderer is new and needs init
        PictureFit fit;  // that is wanted
    };

    // The three below and `count` with the mutex held.
    WindowInfo* find(const void* handle);  // null if there is none
    int count() const { return static_cast<int>(windowInfos_.size()); }
    void closeRemoved();
    void collectDrawings();

    const std::function<bool()> isStopped_;
    std::shared_ptr<SubtitleScreen> subtitles_;  // or null
    std::vector<WindowInfo> windowInfos_;        // in order of adding; guarded by windowMutex_
    PictureFit fit_ = PictureFit::Fill;          // likewise
    std::mutex windowMutex_;
    std::vector<UpdatedWindowInfo> drawings_;  // of the drawing that runs; keeps its memory for the next
};

}  // namespace kelp
