#include "decode/filter_library.h"

#include <dlfcn.h>

extern "C" {
#include <libavfilter/version.h>
#include <libavutil/macros.h>
}

namespace kelp {

namespace {

// Of the release whose headers this is built with.
constexpr char kName[] = "libavfilter.so." AV_STRINGIFY(LIBAVFILTER_VERSION_MAJOR);

template <class Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

}  // namespace

bool FilterLibrary::load() {
    void* const library = dlopen(kName, RTLD_LAZY | RTLD_LOCAL);
    return library && find(library, "avfilter_graph_alloc", allocGraph) &&
           find(library, "avfilter_graph_free", freeGraph) && find(library, "avfilter_graph_parse2", parse) &&
           find(library, "avfilter_graph_config", configure) && find(library, "avfilter_graph_get_filter", getFilter) &&
           find(library, "avfilter_inout_free", freeEnds) && find(library, "av_buffersrc_add_frame_flags", addFrame) &&
           find(library, "av_buffersink_get_frame", getFrame);
}

}  // namespace kelp
