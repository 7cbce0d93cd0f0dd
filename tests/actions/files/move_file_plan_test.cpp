#include "actions/files/move_file_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "runtime/exception.h"
#include "runtime/fake_component_states.h"

namespace setup {
namespace {

using namespace move_file;

class FakeMachine : public MoveFileMachine {
public:
    bool FileExists(const std::wstring& path) override { return files.count(path) != 0; }
    bool IsNetworkPath(const std::wstring& path) override { return path.rfind(L"\\\\", 0) == 0; }
    int MissingFolders(const std::wstring& path) override { return path.find(L"\\new\\") != std::wstring::npos ? 2 : 0; }
    std::wstring NewUuid() override { return L"uuid-" + std::to_wstring(++uuids); }
    std::set<std::wstring> files;
    int uuids = 0;
};

struct Fixture {
    test::FakeComponentStates states;
    FakeMachine machine;
    RecordingLogSink log;
    MoveFilePhases Plan(const std::vector<MoveFileRow>& rows) { return PlanMoveFiles(rows, states, machine, log); }
    bool Logged(const std::wstring& line) const {
        return std::find(log.lines.begin(), log.lines.end(), line) != log.lines.end();
    }
};

MoveFileRow Row(const std::wstring& id, const std::wstring& component, int attributes,
                const std::wstring& condition = L"") {
    return {id, component, L"C:\\s\\" + id, L"C:\\d\\" + id, attributes, condition};
}

std::vector<std::wstring> Ids(const std::vector<MoveFileItem>& items) {
    std::vector<std::wstring> ids;
    for (const MoveFileItem& item : items) ids.push_back(item.id);
    return ids;
}

TEST(MoveFilePlan, DecidesEachTaskAgainstItsBitInTheGivenOrder) {
    struct Case {
        const wchar_t* component;
        int bits;
        const wchar_t* condition;
        Verdict verdict;
        const wchar_t* line;  // after "Skip move files 'R', 'C:\s\R'->'C:\d\R'" or "Need to move files ..."
    };
    const Case cases[] = {
        {L"Install", OnInstall, L"", Verdict::Chosen, L"Need to move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component to do 1."},
        {L"Reinstall", OnReinstall, L"TRUE", Verdict::Chosen, L"Need to move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component to do 3."},
        {L"Remove", OnUninstall, L"", Verdict::Chosen, L"Need to move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component to do 2."},
        {L"Install", OnReinstall | OnUninstall, L"", Verdict::NotMarked,
         L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component action 1 is not suitable. "},
        {L"Reinstall", OnInstall, L"", Verdict::NotMarked,
         L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component action 3 is not suitable. "},
        {L"Remove", OnInstall | OnReinstall, L"", Verdict::NotMarked,
         L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component action 2 is not suitable. "},
        // The condition comes before the task and before FileAbsent.
        {L"Install", 0, L"FALSE", Verdict::ConditionFailed, L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Condition is '0'."},
        {L"FileAbsent", OnUninstall, L"BROKEN", Verdict::ConditionFailed,
         L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Condition is '3'."},
        {L"FileAbsent", OnUninstall, L"", Verdict::FileAbsent,
         L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R'. Component 'FileAbsent' action is FileAbsent."},
        {L"Idle", 0xFFFF, L"FALSE", Verdict::NullAction, L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R' for null-action component."},
        {L"Unknown", 0xFFFF, L"", Verdict::NullAction, L"Skip move files 'R', 'C:\\s\\R'->'C:\\d\\R' for null-action component."},
    };
    for (const Case& c : cases) {
        Fixture f;
        const Decision d = DecideMoveFile(f.states, Row(L"R", c.component, c.bits, c.condition), f.log);
        EXPECT_EQ(d.verdict, c.verdict) << c.line;
        ASSERT_EQ(f.log.lines.size(), 1u);
        EXPECT_EQ(f.log.lines[0], c.line);
        if (c.verdict == Verdict::NullAction) {
            EXPECT_EQ(f.states.evaluations, 0);
        }
    }
}

TEST(MoveFilePlan, SortsAChosenRowIntoEveryPhaseItsBitsName) {
    Fixture f;
    f.machine.files = {L"C:\\d\\Both", L"C:\\d\\Later", L"C:\\d\\Done"};
    MoveFileRow network = Row(L"Net", L"Install", OnInstall | Deferred);
    network.source = L"\\\\server\\share\\a.txt";
    MoveFileRow deep = Row(L"Deep", L"Install", OnInstall | Deferred);
    deep.destination = L"C:\\d\\new\\x\\Deep";
    const MoveFilePhases phases = f.Plan({
        Row(L"Both", L"Install", OnInstall | Immediate | Deferred),
        Row(L"All", L"Install", OnInstall | Immediate | Deferred | Commit | move_file::Rollback),
        Row(L"Later", L"Install", OnInstall | Deferred | AtRestart | Move),
        Row(L"Done", L"Install", OnInstall | Commit | move_file::Rollback),
        Row(L"Nowhere", L"Install", OnInstall | AtRestart),
        Row(L"Skipped", L"Remove", OnInstall | Deferred),
        network,
        deep,
    });
    EXPECT_EQ(Ids(phases.immediate), (std::vector<std::wstring>{L"Both", L"All"}));
    EXPECT_EQ(Ids(phases.deferred), (std::vector<std::wstring>{L"Both", L"All", L"Later", L"Deep"}));
    EXPECT_EQ(Ids(phases.deferredUser), (std::vector<std::wstring>{L"Net"}));
    EXPECT_EQ(Ids(phases.commit), (std::vector<std::wstring>{L"All", L"Done"}));
    EXPECT_EQ(Ids(phases.rollback), (std::vector<std::wstring>{L"All", L"Done"}));

    // An existing destination changed now gets a backup beside it, a fresh one per phase;
    // one replaced only at the restart, or in commit and rollback, none.
    EXPECT_EQ(phases.immediate[0].backup, L"C:\\d\\uuid-1");
    EXPECT_EQ(phases.deferred[0].backup, L"C:\\d\\uuid-2");
    EXPECT_EQ(phases.immediate[1].backup, L"");
    EXPECT_EQ(phases.deferred[2].backup, L"");
    EXPECT_EQ(phases.commit[1].backup, L"");
    EXPECT_EQ(phases.deferred[3].newFolders, 2);
    EXPECT_EQ(phases.deferred[0].newFolders, 0);

    EXPECT_TRUE(f.Logged(L"Need to move files immediate 'Both', 'C:\\s\\Both'->'C:\\d\\Both'."));
    EXPECT_TRUE(f.Logged(L"Need to move files deferred 'Both', 'C:\\s\\Both'->'C:\\d\\Both'."));
    EXPECT_TRUE(f.Logged(L"Need to move files on commit 'All', 'C:\\s\\All'->'C:\\d\\All'."));
    EXPECT_TRUE(f.Logged(L"Need to move files on rollback 'All', 'C:\\s\\All'->'C:\\d\\All'."));
    EXPECT_TRUE(f.Logged(L"Need to move files on reboot 'Later', 'C:\\s\\Later'->'C:\\d\\Later'."));
    EXPECT_TRUE(f.Logged(L"Need to move files deferred from network 'Net', '\\\\server\\share\\a.txt'."));
    EXPECT_FALSE(f.Logged(L"Need to move files deferred 'Net', '\\\\server\\share\\a.txt'->'C:\\d\\Net'."));
    EXPECT_TRUE(f.Logged(
        L"The row 'Nowhere' names no phase (0x100, 0x200, 0x400 or 0x800): it is carried out nowhere."));
    EXPECT_FALSE(f.Logged(L"The row 'Later' names no phase (0x100, 0x200, 0x400 or 0x800): it is carried out nowhere."));
}

TEST(MoveFilePlan, ABadPathFailsAStrictRowAndTravelsWithAContinueOnErrorRow) {
    const std::pair<const wchar_t*, const wchar_t*> bad[] = {
        {L"", L"C:\\d\\x"}, {L"C:\\s\\x", L""}, {L"relative.txt", L"C:\\d\\x"}, {L"C:\\s\\x", L"C:\\d\\a|b"}};
    for (const auto& [source, destination] : bad) {
        Fixture f;
        MoveFileRow row{L"Bad", L"Install", source, destination, OnInstall | Deferred, L""};
        EXPECT_THROW(f.Plan({row}), Exception) << source << L" " << destination;
        row.attributes |= ContinueOnError;
        EXPECT_EQ(f.Plan({row}).deferred.size(), 1u);
        EXPECT_FALSE(MoveFilePathProblem(source, destination).empty());
    }
    EXPECT_EQ(MoveFilePathProblem(L"\\\\server\\share\\a", L"C:\\d\\a"), L"");
    // A skipped row is never checked.
    Fixture f;
    EXPECT_NO_THROW(f.Plan({{L"Bad", L"Remove", L"", L"", OnInstall | Deferred, L""}}));
}

TEST(MoveFilePlan, ActionDataRoundTripsEveryFieldAndSeparator) {
    MoveFileActionData data;
    data.items = {{L"a|b;c*d^e>f=g", L"C:\\s;x.txt", L"C:\\d|y.txt", L"", Move | AtRestart, 0},
                  {L"second", L"\\\\srv\\s\\z", L"C:\\d\\z", L"C:\\d\\uuid", OnInstall | Deferred, 3}};
    data.undo = {data.items[1]};
    data.warningsFile = L"C:\\w=1|2.txt";
    data.snapshot.exists = true;
    data.snapshot.entries = {{L"\\??\\C:\\a", L"!\\??\\C:\\b"}, {L"\\??\\C:\\c", L""}};
    const MoveFileActionData back = DecodeMoveFileActionData(EncodeMoveFileActionData(data));
    EXPECT_EQ(back.items, data.items);
    EXPECT_EQ(back.undo, data.undo);
    EXPECT_EQ(back.warningsFile, data.warningsFile);
    EXPECT_EQ(back.snapshot, data.snapshot);
    EXPECT_TRUE(DecodeMoveFileActionData(EncodeMoveFileActionData({})).items.empty());
}

}  // namespace
}  // namespace setup
