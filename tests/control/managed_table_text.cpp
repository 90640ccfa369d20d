#include <algorithm>
#include <map>

#include "control/managed_table.h"

// The table as text.

namespace kelp::test {

namespace {

std::string joined(const Calls& parts) {
    std::string all;
    for (const auto& part : parts) {
        all += (all.empty() ? "" : ", ") + part;
    }
    return all;
}

std::string statesText(const std::vector<int>& states) {
    if (states.size() == std::size(kPlayerStates)) {
        return "all";
    }
    if (states.size() + 1 == std::size(kPlayerStates) &&
        std::find(states.begin(), states.end(), PLAYER_STATE_IDLE) == states.end()) {
        return "all but idle";
    }
    std::string all;
    for (const int state : states) {
        all += (all.empty() ? "" : ", ") + stateName(state);
    }
    return all;
}

std::string code(const std::string& text) {
    return text.empty() ? "" : "`" + text + "`";
}

// What an arrow of the diagram says; empty for a step that another arrow stands for.
std::string arrowLabel(const TableStep& step, int next) {
    std::string label = step.name.substr(0, step.name.find('('));
    if (label == "onFailed" && !step.drawnOnce) {
        if (next == PLAYER_STATE_ERROR) {
            return "";
        }
        return step.name.find("hardware") == std::string::npos ? "the stream fails and is retried"
                                                               : "the decoder fails on hardware";
    }
    return next == PLAYER_STATE_ERROR && label != "onFailed" ? label + ", refused by the engine" : label;
}

}  // namespace

std::string stateName(int state) {
    static const std::map<int, std::string> names = {{PLAYER_STATE_ERROR, "error"},
                                                     {PLAYER_STATE_IDLE, "idle"},
                                                     {PLAYER_STATE_INITIALIZED, "initialized"},
                                                     {PLAYER_STATE_PREPARING, "preparing"},
                                                     {PLAYER_STATE_PREPARED, "prepared"},
                                                     {PLAYER_STATE_STARTED, "started"},
                                                     {PLAYER_STATE_PAUSED, "paused"},
                                                     {PLAYER_STATE_STOPPED, "stopped"},
                                                     {PLAYER_STATE_COMPLETED, "completed"}};
    return names.at(state);
}

std::string tableForTheDocument() {
    std::string all =
        "| step | in | result | next | calls into the engine | the host hears | log |\n"
        "| --- | --- | --- | --- | --- | --- | --- |\n";
    for (const auto& step : managedTable()) {
        std::string name = code(step.name);
        if (!step.setting.empty()) {
            name += "; " + step.setting;
        }
        for (const auto& row : step.rows) {
            std::string lines;
            for (const auto& line : row.lines) {
                lines += (lines.empty() ? "" : "<br>") + code(line);
            }
            all += "| " + name + " | " + statesText(row.states) + " | " + row.result + " | " +
                   (row.next == kSameState ? "" : stateName(row.next)) + " | " + code(joined(row.calls)) + " | " +
                   joined(row.told) + " | " + lines + " |\n";
            name = "";
        }
    }
    return all;
}

std::string diagramForTheDocument() {
    std::map<std::pair<std::string, std::string>, std::vector<std::string>> arrows;
    std::vector<std::pair<std::string, std::string>> order;
    for (const auto& step : managedTable()) {
        for (const auto& row : step.rows) {
            for (const int state : row.states) {
                if (row.next == kSameState || row.next == state) {
                    continue;
                }
                const std::pair arrow{step.drawnOnce ? "any" : stateName(state), stateName(row.next)};
                const std::string label = arrowLabel(step, row.next);
                if (label.empty()) {
                    continue;
                }
                if (!arrows.contains(arrow)) {
                    order.push_back(arrow);
                }
                auto& labels = arrows[arrow];
                if (std::find(labels.begin(), labels.end(), label) == labels.end()) {
                    labels.push_back(label);
                }
            }
        }
    }
    std::string all = "stateDiagram-v2\n    [*] --> idle : create\n";
    for (const auto& arrow : order) {
        all += "    " + arrow.first + " --> " + arrow.second + " : " + joined(arrows[arrow]) + "\n";
    }
    return all;
}

}  // namespace kelp::test
