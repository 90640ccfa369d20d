// Where the sound goes, and whether it is heard.
#include "c/player.h"

using namespace kelp::c;

// A copy of the names, which those that are given out lie in.
struct kelp_audio_devices {
    std::vector<std::string> names;
    mutable LastError error;
};

int kelp_player_set_mute(kelp_player* player, int muted) {
    return carryOut(__func__, player, [&](kelp_player& handle) { handle.player->setMute(muted != 0); });
}

int kelp_player_is_muted(kelp_player* player) {
    return valueOf(__func__, player, 0, [](kelp_player& handle) { return handle.player->isMuted() ? 1 : 0; });
}

kelp_audio_devices* kelp_get_audio_devices(void) {
    return made<kelp_audio_devices>(__func__, [] {
        auto devices = std::make_unique<kelp_audio_devices>();
        devices->names = kelp::TarnPlayer::getAudioDevices();
        return devices;
    });
}

void kelp_audio_devices_free(kelp_audio_devices* devices) {
    delete devices;
}

const char* kelp_audio_devices_last_error(const kelp_audio_devices* devices) {
    return errorText(devices);
}

size_t kelp_audio_devices_count(const kelp_audio_devices* devices) {
    return devices ? devices->names.size() : 0;
}

const char* kelp_audio_devices_name(const kelp_audio_devices* devices, size_t index) {
    return valueOf(__func__, devices, static_cast<const char*>(nullptr), [&](const kelp_audio_devices& handle) {
        require(index < handle.names.size(), "there aren't so many devices");
        return handle.names[index].c_str();
    });
}
