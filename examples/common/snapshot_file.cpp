#include "snapshot_file.h"

#include <filesystem>

#include "kelp_player/tarn_player.h"

// [snapshot]
std::string saveSnapshot(kelp::TarnPlayer& player, const std::string& source) {
    const std::string name = std::filesystem::path(source).stem().string();
    const std::string file = name + "-" + std::to_string(player.getCurrentTime()) + ".png";
    return player.takeSnapshot(file.c_str()) ? file : std::string();
}
// [/snapshot]
