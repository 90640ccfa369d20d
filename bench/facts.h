#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelp::bench {

// What the process of one row found out: numbers and lists of numbers by name. Goes from process to process as text.
class Facts {
public:
    void set(const std::string& name, double value) { values_[name] = {value}; }
    void set(const std::string& name, std::vector<double> values) { values_[name] = std::move(values); }

    // Puts a number behind those of that name, and all of `others` behind the own.
    void add(const std::string& name, double value) { values_[name].push_back(value); }
    void add(const Facts& others);

    // 0 and an empty list for what isn't there. Of a list, `number` is the mean.
    double number(const std::string& name) const;
    std::vector<double> list(const std::string& name) const;

    // One line for each name: the name and its numbers, with blanks between. Names have none. Lines that a library
    // prints among them count as names that nobody asks for.
    std::string text() const;
    static Facts parse(const std::string& text);

private:
    std::map<std::string, std::vector<double>> values_;
};

}  // namespace kelp::bench
