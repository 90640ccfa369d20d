#pragma once

#include <string>
#include <variant>
#include <vector>

namespace kelp::bench {

// A column: its name in JSON, its heading in Markdown, and how many decimals its numbers have there.
struct Column {
    std::string key;
    std::string heading;
    int decimals = 0;
};

// Nothing, a text or a number.
using Cell = std::variant<std::monostate, std::string, double>;

// Rows of figures, which come out as Markdown and as JSON.
class Table {
public:
    // `topic` is what the command line calls it; `title` says what the rows have in common.
    Table(std::string topic, std::string title, std::vector<Column> columns);

    // One cell for each column.
    void addRow(std::vector<Cell> cells);
    // A remark on what the columns mean, one or more sentences.
    void setNote(std::string note) { note_ = std::move(note); }

    const std::string& topic() const { return topic_; }
    const std::string& title() const { return title_; }
    bool empty() const { return rows_.empty(); }

    // Title, rows and note, with columns that stand below each other.
    std::string markdown() const;
    // An array with an object for each row.
    std::string json() const;

private:
    std::string cellText(const Cell& cell, const Column& column) const;

    const std::string topic_;
    const std::string title_;
    const std::vector<Column> columns_;
    std::string note_;
    std::vector<std::vector<Cell>> rows_;
};

// `text` as JSON writes a string, with its quotes.
std::string jsonString(const std::string& text);

}  // namespace kelp::bench
