#include "report.h"

#include <cstdio>
#include <fstream>
#include <thread>

namespace kelp::bench {

void Report::begin(const std::string& topic) {
    topic_ = topic;
    std::printf("## %s\n\n", topic.c_str());
    std::fflush(stdout);
}

void Report::add(const Table& table) {
    std::printf("%s\n", table.markdown().c_str());
    std::fflush(stdout);
    add(table.topic(), table.title(), table.json());
}

void Report::add(const std::string& topic, const std::string& title, const std::string& rows) {
    tables_.push_back("{\"topic\": " + jsonString(topic) + ", \"title\": " + jsonString(title) +
                      ",\n  \"rows\": " + rows + "}");
}

void Report::expect(const std::string& what, double figure, double most) {
    targets_.addRow({topic_, what, figure, most, figure <= most ? "yes" : "no"});
}

void Report::addTargets() {
    if (!targets_.empty()) {
        begin(targets_.topic());
        add(targets_);
    }
}

bool Report::write(const std::string& path) const {
    std::ofstream file(path);
    file << "{\"processors\": " << std::thread::hardware_concurrency() << ", \"tables\": [";
    for (size_t i = 0; i < tables_.size(); ++i) {
        file << (i == 0 ? "\n  " : ",\n  ") << tables_[i];
    }
    file << "\n]}\n";
    file.close();
    return !file.fail();
}

}  // namespace kelp::bench
