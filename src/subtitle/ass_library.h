#pragma once

extern "C" {
#include <ass/ass.h>
}

namespace kelp {

// The functions of libass that are used. It isn't linked: it brings the libraries of fonts and scripts along, and few
// playbacks have text. Once loaded it stays.
struct AssLibrary {
    // Null, and a line in the log says so, if it isn't there.
    static const AssLibrary* get();

    decltype(&ass_library_init) initLibrary = nullptr;
    decltype(&ass_library_done) doneLibrary = nullptr;
    decltype(&ass_set_message_cb) setMessages = nullptr;
    decltype(&ass_set_extract_fonts) setExtractFonts = nullptr;
    decltype(&ass_add_font) addFont = nullptr;
    decltype(&ass_renderer_init) initRenderer = nullptr;
    decltype(&ass_renderer_done) doneRenderer = nullptr;
    decltype(&ass_set_fonts) setFonts = nullptr;
    decltype(&ass_set_frame_size) setFrameSize = nullptr;
    decltype(&ass_set_storage_size) setStorageSize = nullptr;
    decltype(&ass_set_pixel_aspect) setPixelAspect = nullptr;
    decltype(&ass_set_cache_limits) setCacheLimits = nullptr;
    decltype(&ass_render_frame) renderFrame = nullptr;
    decltype(&ass_new_track) newTrack = nullptr;
    decltype(&ass_free_track) freeTrack = nullptr;
    decltype(&ass_process_codec_private) processHead = nullptr;
    decltype(&ass_process_chunk) processEvent = nullptr;
    decltype(&ass_set_check_readorder) setOrderCheck = nullptr;
    decltype(&ass_flush_events) flushEvents = nullptr;

private:
    bool load();
};

}  // namespace kelp
