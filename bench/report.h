#pragma once

#include <string>
#include <vector>

#include "table.h"

namespace kelp::bench {

// Prints tables as they come, in a section for each topic, and keeps them for a file of JSON.
class Report {
public:
    // Begins the section of a topic.
    void begin(const std::string& topic);

    void add(const Table& table);
    // A table that another program has printed: `rows` is a JSON array of objects.
    void add(const std::string& topic, const std::string& title, const std::string& rows);

    // Notes that `figure` is meant to be `most` at most.
    void expect(const std::string& what, double figure, double most);
    // Prints what was expected, and what of it was met, in a section of its own; nothing if there is none.
    void addTargets();

    // Writes {"processors": N, "tables": [{"topic": ..., "title": ..., "rows": [{...}, ...]}, ...]}. False if the file
    // can't be written.
    bool write(const std::string& path) const;

private:
    std::string topic_;                // the last that began
    std::vector<std::string> tables_;  // each an object of JSON
    Table targets_{
        "targets",
        "Targets",
        {{"topic", "topic"}, {"what", "what"}, {"figure", "figure", 2}, {"most", "at most", 2}, {"met", "met"}}};
};

}  // namespace kelp::bench
