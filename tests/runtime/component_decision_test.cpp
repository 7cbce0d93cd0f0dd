#include "runtime/component_decision.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/fake_component_states.h"

namespace setup {
namespace {

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
}

TEST(ComponentDecision, RulesPickTheirTasksConditionsAndFileAbsent) {
    struct Case { const DecisionRule& rule; ComponentState state; int condition; Verdict verdict; };
    const Case cases[] = {
        {kStandardInstall, {3, -1}, 1, Verdict::NullAction},
        {kStandardInstall, {3, 2}, 1, Verdict::NotMarked},
        {kStandardInstall, {2, 3}, 0, Verdict::ConditionFailed},
        {kStandardInstall, {2, 3}, 3, Verdict::ConditionFailed},  // a condition that does not parse
        {kStandardInstall, {2, 3}, 2, Verdict::Chosen},            // no condition
        {kStandardInstall, {3, 3}, 1, Verdict::Chosen},            // reinstall
        {kStandardUninstall, {3, 3}, 0, Verdict::NotMarked},
        {kStandardUninstall, {3, 1}, 0, Verdict::FileAbsent},
        {kStandardUninstall, {4, 2}, 0, Verdict::Chosen},          // the condition is not asked
    };
    for (const Case& c : cases) {
        test::FakeComponentStates states;
        states.states[L"Comp"] = c.state;
        const wchar_t* condition[] = {L"FALSE", L"TRUE", L"", L"BROKEN"};  // by result, kConditionFalse..Error
        RecordingLogSink log;
        const Decision d = DecideRow(states, c.rule, L"Comp", condition[c.condition], [](const Decision& x) {
            return Format(L"verdict %d", static_cast<int>(x.verdict));
        }, log);
        EXPECT_EQ(d.verdict, c.verdict) << c.state.installed << "," << c.state.action;
        EXPECT_EQ(log.lines, std::vector<std::wstring>{Format(L"verdict %d", static_cast<int>(c.verdict))});
        EXPECT_EQ(states.evaluations, c.rule.evaluateCondition && d.verdict != Verdict::NotMarked &&
                                              d.verdict != Verdict::NullAction ? 1 : 0);
    }
}

}  // namespace
}  // namespace setup
