#include "settings.h"

bool addSetting(std::string_view word, Settings& settings) {
    const auto equals = word.find('=');
    if (equals == std::string_view::npos || equals == 0) {
        return false;
    }
    settings.emplace_back(word.substr(0, equals), word.substr(equals + 1));
    return true;
}
