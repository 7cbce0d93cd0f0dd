#include "runtime/component_decision.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace setup {
namespace {

class FakeStates : public ComponentStates {
public:
    std::optional<ComponentState> State(std::wstring_view) override { return state; }
    int EvaluateCondition(std::wstring_view condition) override {
        ++evaluations;
        const auto it = conditions.find(std::wstring(condition));
        return it == conditions.end() ? kConditionNone : it->second;
    }
    std::optional<ComponentState> state;
    std::map<std::wstring, int> conditions;
    int evaluations = 0;
};

TEST(ComponentTask, ClassifiesEveryPairOfStates) {
    // Expected task for installed state i (rows, -1..5) and action a (columns, -1..5).
    const int expected[7][7] = {
        //  a=-1 0  1  2  3  4  5
        {0, 0, 0, 0, 1, 1, 0},  // i=-1
        {0, 0, 0, 0, 1, 1, 0},  // i=0
        {0, 0, 0, 0, 1, 1, 0},  // i=1 advertised
        {0, 0, 0, 0, 1, 1, 0},  // i=2 absent
        {0, 0, 2, 2, 3, 3, 3},  // i=3 local
        {0, 0, 2, 2, 3, 3, 3},  // i=4 source
        {0, 0, 0, 0, 1, 1, 0},  // i=5
    };
    for (int i = -1; i <= 5; ++i) {
        for (int a = -1; a <= 5; ++a) {
            EXPECT_EQ(static_cast<int>(ClassifyComponent({i, a})), expected[i + 1][a + 1])
                << "installed " << i << " action " << a;
        }
    }
    FakeStates failing;  // the query failed: none
    EXPECT_EQ(GetComponentTask(failing, L"C"), ComponentTask::None);
}

struct DecisionCase {
    ComponentState state;
    int condition;
    Verdict verdict;
    std::wstring line;
};

void RunCases(const DecisionRule& rule, const DecisionText& text, const std::vector<DecisionCase>& cases) {
    for (const auto& c : cases) {
        FakeStates states;
        states.state = c.state;
        states.conditions[L"COND"] = c.condition;
        RecordingLogSink log;
        const Decision d = DecideRow(states, rule, L"Comp", L"COND", text, log);
        EXPECT_EQ(d.verdict, c.verdict) << c.state.installed << "," << c.state.action;
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0], c.line);
    }
}

TEST(ComponentDecision, StandardInstallPathsAndTexts) {
    RunCases(kStandardInstall, [](const Decision& d) { return StandardInstallText(d, L"Cab1"); },
             {
                 {{3, -1}, 1, Verdict::NullAction, L"Skip installation of cab 'Cab1' for null-action component."},
                 {{3, 2}, 1, Verdict::NotMarked, L"Skip installation of 'Cab1' cab. Component is not marked to install."},
                 {{2, 3}, 0, Verdict::ConditionFailed, L"Skip installation of 'Cab1' cab. Condition is '0'."},
                 {{2, 3}, 3, Verdict::ConditionFailed, L"Skip installation of 'Cab1' cab. Condition is '3'."},
                 {{2, 3}, 2, Verdict::Chosen, L"Need to install 'Cab1' cab. Component to do 1."},  // empty condition
                 {{3, 3}, 1, Verdict::Chosen, L"Need to install 'Cab1' cab. Component to do 3."},  // reinstall
             });
}

TEST(ComponentDecision, StandardUninstallSkipsFileAbsentAndIgnoresTheCondition) {
    RunCases(kStandardUninstall, [](const Decision& d) { return StandardUninstallText(d, L"Cab1"); },
             {
                 {{2, -1}, 0, Verdict::NullAction, L"Skip uninstallation of cab for null-action component 'Cab1'."},
                 {{3, 3}, 0, Verdict::NotMarked,
                  L"Skip uninstallation of 'Cab1' cab. Component is not marked to uninstall."},
                 {{3, 1}, 0, Verdict::FileAbsent, L"Skip uninstallation of 'Cab1' cab. Component action is FileAbsent."},
                 {{4, 2}, 0, Verdict::Chosen, L"Need to uninstall 'Cab1' cab. Component to do 2."},
             });
    FakeStates states;
    states.state = ComponentState{3, 2};
    RecordingLogSink log;
    DecideRow(states, kStandardUninstall, L"C", L"COND", [](const Decision&) { return std::wstring(); }, log);
    EXPECT_EQ(states.evaluations, 0);  // no condition on uninstall
}

TEST(ComponentDecision, AFeatureVariantAcceptsItsOwnTasksWithItsOwnTexts) {
    // Event manifests uninstall on uninstall and on reinstall, with their own wording.
    const DecisionRule rule{false, true, true, false, true};
    auto text = [](const Decision& d) -> std::wstring {
        switch (d.verdict) {
        case Verdict::NotMarked: return L"not marked";
        case Verdict::FileAbsent: return L"file absent";
        case Verdict::Chosen: return Format(L"need %d", static_cast<int>(d.task));
        default: return L"null";
        }
    };
    RunCases(rule, text,
             {
                 {{3, 3}, 1, Verdict::Chosen, L"need 3"},
                 {{3, 2}, 1, Verdict::Chosen, L"need 2"},
                 {{3, 1}, 1, Verdict::FileAbsent, L"file absent"},
                 {{2, 3}, 1, Verdict::NotMarked, L"not marked"},
                 {{-1, -1}, 1, Verdict::NullAction, L"null"},
             });
}

}  // namespace
}  // namespace setup
