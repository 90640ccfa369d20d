#include "table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kelp::bench {

namespace {

std::string jsonCell(const Cell& cell) {
    if (const auto* text = std::get_if<std::string>(&cell)) {
        return jsonString(*text);
    }
    const auto* number = std::get_if<double>(&cell);
    if (number == nullptr || !std::isfinite(*number)) {
        return "null";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", *number);
    return text;
}

}  // namespace

std::string jsonString(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned int>(c));
            quoted += escaped;
        } else {
            quoted += c;
        }
    }
    return quoted + '"';
}

Table::Table(std::string topic, std::string title, std::vector<Column> columns)
    : topic_(std::move(topic)), title_(std::move(title)), columns_(std::move(columns)) {
}

void Table::addRow(std::vector<Cell> cells) {
    cells.resize(columns_.size());
    rows_.push_back(std::move(cells));
}

std::string Table::cellText(const Cell& cell, const Column& column) const {
    if (const auto* text = std::get_if<std::string>(&cell)) {
        return *text;
    }
    const auto* number = std::get_if<double>(&cell);
    if (number == nullptr) {
        return "";
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", column.decimals, *number);
    return text;
}

std::string Table::markdown() const {
    std::vector<std::vector<std::string>> lines(rows_.size());
    std::vector<size_t> widths;
    std::vector<bool> isText;
    for (size_t i = 0; i < columns_.size(); ++i) {
        size_t width = std::max<size_t>(columns_[i].heading.size(), 4);
        bool text = false;
        for (size_t row = 0; row < rows_.size(); ++row) {
            lines[row].push_back(cellText(rows_[row][i], columns_[i]));
            width = std::max(width, lines[row].back().size());
            text = text || std::holds_alternative<std::string>(rows_[row][i]);
        }
        widths.push_back(width);
        isText.push_back(text);
    }
    const auto padded = [&](const std::string& text, size_t i) {
        const std::string blanks(widths[i] - text.size(), ' ');
        return isText[i] ? "| " + text + blanks + " " : "| " + blanks + text + " ";
    };
    std::string heading;
    std::string rule;
    for (size_t i = 0; i < columns_.size(); ++i) {
        heading += padded(columns_[i].heading, i);
        rule += isText[i] ? padded(std::string(widths[i], '-'), i) : padded(std::string(widths[i] - 1, '-') + ":", i);
    }
    std::string all = title_ + "\n\n" + heading + "|\n" + rule + "|\n";
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            all += padded(line[i], i);
        }
        all += "|\n";
    }
    return note_.empty() ? all : all + '\n' + note_ + '\n';
}

std::string Table::json() const {
    std::string all = "[";
    for (size_t row = 0; row < rows_.size(); ++row) {
        all += row == 0 ? "\n    {" : ",\n    {";
        for (size_t i = 0; i < columns_.size(); ++i) {
            all += (i == 0 ? "" : ", ") + jsonString(columns_[i].key) + ": " + jsonCell(rows_[row][i]);
        }
        all += '}';
    }
    return all + "\n  ]";
}

}  // namespace kelp::bench
