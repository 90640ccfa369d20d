#pragma once

#include <functional>
#include <string>
#include <vector>

#include "control/tarn_player_fixture.h"

namespace kelp::test {

// What a step of the table works on: a player on a fake engine that is 700 ms into a source of 9000 ms.
struct TableStage {
    TarnPlayer& player;
    RecordingHost& host;
    FakeEngine& engine;
    HostClock& clock;  // at 12000 ms
};

// What happens in some of the states. `{state}` in a line is the state's number.
struct TableRow {
    std::vector<int> states;
    std::string result;
    int next;     // the state afterwards, or kSameState
    Calls calls;  // into the engine, with those that the worker makes of it
    Calls told;   // to the host
    Calls lines;  // in the log: "Level text"
};

// A call of the host's or an event of the engine's, in all states.
struct TableStep {
    std::string name;
    std::function<std::string(TableStage&)> run;  // gives the result as text
    std::vector<TableRow> rows;                   // every state in exactly one
    std::string setting = "";                     // what is done before, for the reader
    std::function<void(TableStage&)> prepare = nullptr;
    bool drawnOnce = false;  // in the diagram: from any state, rather than one arrow for each
};

constexpr int kSameState = -1;

// The source's offset in every state but the idle one, in milliseconds.
constexpr int kTableOffsetMs = 500;

// The one description of what a managed player does.
const std::vector<TableStep>& managedTable();

// "started", "paused" ...
std::string stateName(int state);

// The table and the diagram as they stand in docs/managed-player.md.
std::string tableForTheDocument();
std::string diagramForTheDocument();

}  // namespace kelp::test
