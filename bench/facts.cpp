#include "facts.h"

#include <cstdio>
#include <numeric>
#include <sstream>

namespace kelp::bench {

void Facts::add(const Facts& others) {
    for (const auto& [name, values] : others.values_) {
        values_[name].insert(values_[name].end(), values.begin(), values.end());
    }
}

double Facts::number(const std::string& name) const {
    const std::vector<double> values = list(name);
    return values.empty() ? 0 : std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

std::vector<double> Facts::list(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::vector<double>{} : found->second;
}

std::string Facts::text() const {
    std::string text;
    for (const auto& [name, values] : values_) {
        text += name;
        for (const double value : values) {
            char number[32];
            std::snprintf(number, sizeof number, " %.9g", value);
            text += number;
        }
        text += '\n';
    }
    return text;
}

Facts Facts::parse(const std::string& text) {
    Facts facts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        words >> name;
        std::vector<double> values;
        for (double value = 0; words >> value;) {
            values.push_back(value);
        }
        facts.set(name, std::move(values));
    }
    return facts;
}

}  // namespace kelp::bench
