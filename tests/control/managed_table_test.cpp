#include "control/managed_table.h"

#include <algorithm>
#include <cctype>

#include "control/document_parts.h"
#include "kelp_player/log.h"

namespace kelp::test {
namespace {

// The lines of the player while it lives, as "Level text". From one thread.
class LevelledLines {
public:
    LevelledLines() {
        Log::SetLogCallback([this](const char* line) { add(line); });
        Log::SetLevel(4);
    }
    ~LevelledLines() {
        Log::SetLevel(oldLevel_);
        Log::SetLogCallback(nullptr);
    }
    const Calls& lines() const { return lines_; }

private:
    void add(const std::string& line) {
        const auto tag = line.find("[TarnPlayer]: ");
        const auto open = line.find('(');
        if (tag == std::string::npos || open > tag) {
            return;
        }
        std::string level = line.substr(open + 1, line.find(')') - open - 1);
        std::transform(level.begin() + 1, level.end(), level.begin() + 1,
                       [](unsigned char c) { return std::tolower(c); });
        std::string text = line.substr(tag + 14);
        text.resize(text.find('\n') == std::string::npos ? text.size() : text.find('\n'));
        lines_.push_back(level + " " + text);
    }

    Calls lines_;
    const int oldLevel_ = Log::GetLevel();
};

std::string withState(std::string text, int state) {
    const auto at = text.find("{state}");
    return at == std::string::npos ? text : text.replace(at, 7, std::to_string(state));
}

class ManagedTable : public TarnPlayerFixture, public testing::WithParamInterface<size_t> {
protected:
    void checkCell(const TableStep& step, int from);
};

void ManagedTable::checkCell(const TableStep& step, int from) {
    const TableRow* expected = nullptr;
    int rows = 0;
    for (const auto& row : step.rows) {
        if (std::find(row.states.begin(), row.states.end(), from) != row.states.end()) {
            expected = &row;
            ++rows;
        }
    }
    ASSERT_EQ(rows, 1) << "every state is in one row of a step";

    reach(from, kTableOffsetMs);
    engine().currentTimeMs = 700;
    engine().durationMs = 9000;
    HostClock clock;
    clock.now = 12000;
    TableStage stage{*player_, host_, engine(), clock};
    if (step.prepare) {
        step.prepare(stage);
        engine().calls.clear();
    }
    LevelledLines log;
    EXPECT_EQ(step.run(stage), expected->result);
    engine().runWorker();
    EXPECT_EQ(engine().takeCalls(), expected->calls);
    EXPECT_EQ(host_.told, expected->told);
    Calls lines;
    for (const auto& line : expected->lines) {
        lines.push_back(withState(line, from));
    }
    EXPECT_EQ(log.lines(), lines);
    EXPECT_EQ(state(), expected->next == kSameState ? from : expected->next);
    player_->setSyncClock(nullptr);
}

TEST_P(ManagedTable, HoldsInEveryState) {
    const TableStep& step = managedTable().at(GetParam());
    for (const int state : kPlayerStates) {
        SCOPED_TRACE(stateName(state));
        renew();
        checkCell(step, state);
    }
}

std::string stepName(const testing::TestParamInfo<size_t>& step) {
    std::string name;
    for (const char letter : managedTable().at(step.param).name) {
        if (std::isalnum(static_cast<unsigned char>(letter))) {
            name += letter;
        }
    }
    return name + std::to_string(step.param);
}

INSTANTIATE_TEST_SUITE_P(Of, ManagedTable, testing::Range<size_t>(0, managedTable().size()), stepName);

// The document's table and diagram are made from the table above, by this test with KELP_WRITE_DOCUMENTS=1.
TEST(ManagedTableDocument, ShowsWhatTheTestsCheck) {
    expectDocumentShows(KELP_MANAGED_DOCUMENT, {{"table", tableForTheDocument()},
                                                {"diagram", "```mermaid\n" + diagramForTheDocument() + "```\n"}});
}

}  // namespace
}  // namespace kelp::test
