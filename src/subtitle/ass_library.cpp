#include "subtitle/ass_library.h"

#include <dlfcn.h>

#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kName[] = "libass.so.9";

template <class Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

}  // namespace

const AssLibrary* AssLibrary::get() {
    static const AssLibrary* const loaded = []() -> const AssLibrary* {
        static AssLibrary library;
        if (library.load()) {
            return &library;
        }
        Log::Error("AssLibrary", "%s, %s isn't there: subtitles of text aren't drawn\n", "load", kName);
        return nullptr;
    }();
    return loaded;
}

bool AssLibrary::load() {
    void* const library = dlopen(kName, RTLD_LAZY | RTLD_LOCAL);
    return library && find(library, "ass_library_init", initLibrary) &&
           find(library, "ass_library_done", doneLibrary) && find(library, "ass_set_message_cb", setMessages) &&
           find(library, "ass_set_extract_fonts", setExtractFonts) && find(library, "ass_add_font", addFont) &&
           find(library, "ass_renderer_init", initRenderer) && find(library, "ass_renderer_done", doneRenderer) &&
           find(library, "ass_set_fonts", setFonts) && find(library, "ass_set_frame_size", setFrameSize) &&
           find(library, "ass_set_storage_size", setStorageSize) &&
           find(library, "ass_set_pixel_aspect", setPixelAspect) &&
           find(library, "ass_set_cache_limits", setCacheLimits) && find(library, "ass_render_frame", renderFrame) &&
           find(library, "ass_new_track", newTrack) && find(library, "ass_free_track", freeTrack) &&
           find(library, "ass_process_codec_private", processHead) &&
           find(library, "ass_set_check_readorder", setOrderCheck) &&
           find(library, "ass_process_chunk", processEvent) && find(library, "ass_flush_events", flushEvents);
}

}  // namespace kelp
