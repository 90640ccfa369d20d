#include "subtitle/subtitle_event.h"

#include <algorithm>

namespace kelp {

namespace {

constexpr int kFieldsBeforeText = 7;

// Where the field begins; the end if there are fewer.
size_t fieldAt(std::string_view ass, int field) {
    size_t at = 0;
    for (int i = 0; i < field && at != std::string_view::npos; ++i) {
        at = ass.find(',', at);
        at += at != std::string_view::npos ? 1 : 0;
    }
    return std::min(at, ass.size());
}

// What the block of overrides says of drawings, which are no text: the last \p with a number.
bool drawsAfter(std::string_view overrides, bool draws) {
    for (size_t at = overrides.find("\\p"); at != std::string_view::npos; at = overrides.find("\\p", at + 2)) {
        if (at + 2 < overrides.size() && overrides[at + 2] >= '0' && overrides[at + 2] <= '9') {
            draws = overrides[at + 2] != '0';
        }
    }
    return draws;
}

}  // namespace

size_t SubtitleEvent::bytes() const {
    size_t sum = sizeof(*this) + ass.size();
    for (const auto& bitmap : bitmaps) {
        sum += bitmap.indices.size() + bitmap.palette.size() * sizeof(uint32_t);
    }
    return sum;
}

std::string_view SubtitleEvent::styledText() const {
    return std::string_view(ass).substr(fieldAt(ass, kFieldsBeforeText));
}

std::string SubtitleEvent::plainText() const {
    const std::string_view styled = styledText();
    std::string plain;
    bool draws = false;
    for (size_t i = 0; i < styled.size(); ++i) {
        const char next = i + 1 < styled.size() ? styled[i + 1] : '\0';
        if (const size_t end = styled[i] == '{' ? styled.find('}', i) : std::string_view::npos;
            end != std::string_view::npos) {
            draws = drawsAfter(styled.substr(i, end - i), draws);
            i = end;
        } else if (styled[i] == '\\' && (next == 'N' || next == 'n' || next == 'h')) {
            plain += next == 'h' ? ' ' : '\n';
            ++i;
        } else if (!draws && styled[i] != '\r') {
            plain += styled[i];
        }
    }
    return plain;
}

bool SubtitleEvent::isMoving() const {
    if (ass.empty()) {
        return false;
    }
    const size_t effect = fieldAt(ass, kFieldsBeforeText - 1);
    if (effect < ass.size() && ass[effect] != ',') {
        return true;  // "Banner;", "Scroll up;"
    }
    const std::string_view text = styledText();
    return std::ranges::any_of(std::initializer_list<std::string_view>{"\\t", "\\move", "\\k", "\\K", "\\fad"},
                               [&](std::string_view tag) { return text.find(tag) != std::string_view::npos; });
}

}  // namespace kelp
