#include "source_problem.h"

#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

std::string problemOfPath(const std::string& path) {
    if (path.find("://") != std::string::npos) {
        return {};
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) {
        return "no such file";
    }
    if (std::filesystem::is_directory(status)) {
        return "is a folder";
    }
    if (std::filesystem::is_regular_file(status)) {
        if (std::filesystem::file_size(path, error) == 0 && !error) {
            return "the file is empty";
        }
        if (!std::ifstream(path)) {
            return "can't be read";
        }
    }
    return {};
}

std::string messageOf(const std::string& logLine) {
    const auto begin = logLine.find("]: ");
    std::string text = begin == std::string::npos ? logLine : logLine.substr(begin + 3);
    text.erase(text.find_last_not_of(" \r\n") + 1);
    return text;
}

std::string reasonIn(const std::string& message) {
    // Plain words of the player's, behind the file's name.
    constexpr std::string_view kPlain = " can't be played: ";
    if (const auto plain = message.rfind(kPlain); plain != std::string::npos) {
        return message.substr(plain + kPlain.size());
    }
    const auto code = message.find(", ", message.find("ret:"));
    const auto end = message.find(", is stoped:");
    if (message.find("ret:") == std::string::npos || code == std::string::npos || end == std::string::npos) {
        return message;
    }
    return message.substr(code + 2, end - code - 2);
}
