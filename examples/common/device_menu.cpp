#include "device_menu.h"

#include <algorithm>

#include "kelp_player/tarn_player.h"

// [menu]
std::vector<std::string> deviceMenu() {
    std::vector<std::string> names = kelp::TarnPlayer::getAudioDevices();
    names.insert(names.begin(), "default");
    return names;
}
// [/menu]

std::string deviceAfter(const std::string& current) {
    const std::vector<std::string> names = deviceMenu();
    const auto found = std::find(names.begin(), names.end(), current);
    return found == names.end() || found + 1 == names.end() ? names.front() : *(found + 1);
}
