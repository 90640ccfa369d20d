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

    // Writes {"processors": N, "tables": [{"topic": ..., "title": ..., "rows": [{...}, ...]}, ...]}. False if the file
    // can't be written.
    bool write(const std::string& path) const;

private:
    std::vector<std::string> tables_;  // each an object of JSON
};

}  // namespace kelp::bench
