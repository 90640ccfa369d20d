// Measures what playing costs and how well it keeps time, beside what the same libraries need without a player, and
// prints tables in Markdown.
//
// usage: kelp_bench [--quick | --smoke] [--file FILE] [--seconds N] [--out FOLDER] [TOPIC...]
//
//     --quick       fewer and shorter measurements, in some minutes
//     --smoke       hardly any, in less than one: shows that everything can be measured, and the figures mean nothing
//     --file FILE   what `cost`, `latency` and `steps` play, instead of clips that are made with the ffmpeg command
//     --seconds N   of the film that `cost` plays, or how long `screens` are watched
//     --out FOLDER  where the clips and bench.json, the same figures, go: build unless given
//
// Without a TOPIC all of them but `screens` are measured, in the order of kTopics. Each row runs in a process of its
// own.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "av_distance.h"
#include "child.h"
#include "codec_cost.h"
#include "cost.h"
#include "counts.h"
#include "latency.h"
#include "measures.h"
#include "micro.h"
#include "players.h"
#include "presentation.h"
#include "report.h"
#include "screens.h"
#include "seek_latency.h"
#include "settings.h"
#include "step_latency.h"
#include "subtitle_cost.h"
#include "udp_bench.h"
#include "wakes.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kelp::bench {

namespace {

struct Topic {
    const char* name;
    bool (*measure)(const Settings& settings, Report& report);
    bool isInAll = true;
};

// In the order of the report.
// clang-format off
constexpr Topic kTopics[] = {
    {"cost", measureCost},
    {"codecs", measureCodecCost},
    {"subtitles", measureSubtitleCost},
    {"players", measurePlayers},
    {"wakes", measureWakes},
    {"latency", measureLatency},
    {"steps", measureSteps},
    {"presentation", measurePresentation},
    {"screens", measureScreensForLong, /*isInAll=*/false},
    {"udp", measureUdp},
    {"counts", measureCounts},
    {"micro", measureMicro},
};
// clang-format on

struct Row {
    const char* name;
    bool (*be)(const std::vector<std::string>& words, Facts& facts);
};

constexpr Row kRows[] = {
    {"cost", costRow},
    {"subtitles", subtitleCostRow},
    {"players", playersRow},
    {"wakes", wakesRow},
    {"latency", latencyRow},
    {"seek-latency", seekLatencyRow},
    {"steps", stepsRow},
    {"presentation", presentationRow},
    {"av-distance", avDistanceRow},
    {"screens", screensRow},
    {"udp", udpRow},
};

int usage() {
    std::string topics;
    for (const Topic& topic : kTopics) {
        topics += std::string(" ") + topic.name;
    }
    std::fprintf(
        stderr,
        "usage: kelp_bench [--quick | --smoke] [--file FILE] [--seconds N] [--out FOLDER] [TOPIC...]\ntopics:%s\n",
        topics.c_str());
    return 2;
}

int runRowNamed(const std::vector<std::string>& words) {
    for (const Row& row : kRows) {
        if (!words.empty() && words.front() == row.name) {
            return beRow(row.be, {words.begin() + 1, words.end()});
        }
    }
    return usage();
}

int measureTopics(const Settings& settings, const std::vector<std::string>& names) {
    Report report;
    bool ok = true;
    for (const Topic& topic : kTopics) {
        bool wanted = names.empty() && topic.isInAll;
        for (const std::string& name : names) {
            wanted = wanted || name == topic.name;
        }
        if (wanted) {
            report.begin(topic.name);
            const double begin = nowMs();
            if (!topic.measure(settings, report)) {
                std::fprintf(stderr, "kelp_bench: %s couldn't be measured in full\n", topic.name);
                ok = false;
            }
            std::fprintf(stderr, "kelp_bench: %s took %.1f min\n", topic.name, (nowMs() - begin) / 60'000);
        }
    }
    report.addTargets();
    return report.write(settings.folder + "/bench.json") && ok ? 0 : 1;
}

bool isTopic(const std::string& name) {
    for (const Topic& topic : kTopics) {
        if (name == topic.name) {
            return true;
        }
    }
    return false;
}

}  // namespace

}  // namespace kelp::bench

int main(int argc, char** argv) {
    using namespace kelp::bench;
    av_log_set_level(AV_LOG_QUIET);
    if (argc > 1 && std::strcmp(argv[1], "--row") == 0) {
        return runRowNamed({argv + 2, argv + argc});
    }
    Settings settings;
    std::vector<std::string> topics;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--quick") {
            settings.length = Length::Quick;
        } else if (word == "--smoke") {
            settings.length = Length::Smoke;
        } else if (word == "--file" && i + 1 < argc) {
            settings.file = argv[++i];
        } else if (word == "--seconds" && i + 1 < argc) {
            settings.seconds = std::atoi(argv[++i]);
        } else if (word == "--out" && i + 1 < argc) {
            settings.folder = argv[++i];
        } else if (isTopic(word)) {
            topics.push_back(word);
        } else {
            return usage();
        }
    }
    return measureTopics(settings, topics);
}
