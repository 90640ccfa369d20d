#pragma once

#include <cstdint>  // which the library's headers ask for in this language

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

namespace kelp {

// The functions of libavfilter that are used. It isn't linked: it brings some thirty libraries along, and few playbacks
// need it. Once loaded it stays.
struct FilterLibrary {
    // False if it isn't there, or not as it should be.
    bool load();

    decltype(&avfilter_graph_alloc) allocGraph = nullptr;
    decltype(&avfilter_graph_free) freeGraph = nullptr;
    decltype(&avfilter_graph_parse2) parse = nullptr;
    decltype(&avfilter_graph_config) configure = nullptr;
    decltype(&avfilter_graph_get_filter) getFilter = nullptr;
    decltype(&avfilter_inout_free) freeEnds = nullptr;
    decltype(&av_buffersrc_add_frame_flags) addFrame = nullptr;
    decltype(&av_buffersink_get_frame) getFrame = nullptr;
};

}  // namespace kelp
