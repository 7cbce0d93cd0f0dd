#include "actions/files/remove_file_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "runtime/fake_component_states.h"

namespace setup {
namespace {

using namespace remove_file;

class FakeMachine : public RemoveFileMachine {
public:
    bool IsFolder(const std::wstring& path) override { return folders.count(path) != 0; }
    std::wstring NewUuid() override { return L"u" + std::to_wstring(++uuids); }
    std::set<std::wstring> folders;
    int uuids = 0;
};

TEST(RemoveFilePlan, ReadsAPathAsAFolderAFileOrAPattern) {
    const RemovalTarget folder = TargetOf(L"C:\\app\\logs", true);
    EXPECT_EQ(folder.folder, L"C:\\app\\logs");
    EXPECT_EQ(folder.pattern, L"*");
    EXPECT_TRUE(folder.wholeFolder);
    // A trailing separator names a folder that may not exist yet.
    EXPECT_TRUE(TargetOf(L"C:\\app\\logs\\", false).wholeFolder);
    EXPECT_EQ(TargetOf(L"C:\\app\\logs\\", false).folder, L"C:\\app\\logs");
    const RemovalTarget pattern = TargetOf(L"C:\\app\\logs\\*.log", false);
    EXPECT_EQ(pattern.folder, L"C:\\app\\logs");
    EXPECT_EQ(pattern.pattern, L"*.log");
    EXPECT_FALSE(pattern.wholeFolder);
    EXPECT_EQ(TargetOf(L"C:\\app\\a.txt", false).pattern, L"a.txt");
}

TEST(RemoveFilePlan, MatchesWildcardsIgnoringCase) {
    const std::tuple<const wchar_t*, const wchar_t*, bool> cases[] = {
        {L"a.log", L"*.log", true},   {L"A.LOG", L"*.log", true},  {L"a.log.txt", L"*.log", false},
        {L"a.log", L"?.log", true},   {L"ab.log", L"?.log", false}, {L"x", L"*", true},
        {L"", L"*", true},            {L"abc", L"a*c", true},       {L"abcbc", L"a*bc", true},
        {L"abd", L"a*c", false},      {L"a", L"a**", true},         {L"keep.txt", L"*.log", false},
    };
    for (const auto& [name, pattern, expected] : cases) EXPECT_EQ(MatchesPattern(name, pattern), expected) << name << L" " << pattern;
}

TEST(RemoveFilePlan, RefusesRootsSystemFoldersAndTheFoldersAboveThem) {
    const std::vector<std::wstring> guarded = {L"C:\\windows", L"C:\\Program Files", L"C:\\users\\root", L""};
    EXPECT_EQ(RemovalProblem(L"C:\\Program Files\\App", guarded), L"");
    EXPECT_EQ(RemovalProblem(L"C:\\windowsold", guarded), L"");
    EXPECT_EQ(RemovalProblem(L"C:", guarded), L"it is the root of a drive or share");
    EXPECT_EQ(RemovalProblem(L"C:\\", guarded), L"it is the root of a drive or share");
    EXPECT_EQ(RemovalProblem(L"\\\\server\\share", guarded), L"it is the root of a drive or share");
    EXPECT_EQ(RemovalProblem(L"\\\\?\\C:\\", guarded), L"it is the root of a drive or share");
    EXPECT_EQ(RemovalProblem(L"c:/WINDOWS/", guarded), L"it is a system folder (C:\\windows)");
    EXPECT_EQ(RemovalProblem(L"C:\\users", guarded), L"it holds a system folder (C:\\users\\root)");
    EXPECT_EQ(RemovalProblem(L"relative", guarded), L"it is not an absolute path (a drive or a network share)");
}

TEST(RemoveFilePlan, DecidesByTaskBitsConditionAndTheUpgradeRule) {
    test::FakeComponentStates states;
    struct Case { const wchar_t* component; int bits; const wchar_t* condition; bool upgrading; bool chosen; };
    const Case cases[] = {
        {L"Install", OnInstall, L"", false, true},       {L"Install", OnUninstall | OnReinstall, L"", false, false},
        {L"Remove", OnUninstall, L"", false, true},      {L"Remove", OnInstall, L"", false, false},
        {L"Reinstall", OnReinstall, L"", false, true},   {L"Reinstall", OnInstall, L"", false, false},
        {L"Install", OnInstall, L"FALSE", false, false}, {L"Install", OnInstall, L"BROKEN", false, false},
        {L"Idle", 0x7F, L"", false, false},              {L"Remove", OnUninstall, L"", true, false},
        {L"Remove", OnUninstall | DuringUpgrade, L"", true, true},
    };
    for (const Case& c : cases) {
        RecordingLogSink log;
        const RemoveFileRow row{L"R", c.component, L"C:\\x\\y", Deferred, c.bits, c.condition};
        EXPECT_EQ(DecideRemoveFile(states, row, c.upgrading, log).Chosen(), c.chosen) << c.component << c.bits;
        ASSERT_EQ(log.lines.size(), 1u);
    }
    RecordingLogSink log;
    DecideRemoveFile(states, {L"R", L"Remove", L"C:\\x\\y", Deferred, OnUninstall, L""}, true, log);
    EXPECT_EQ(log.lines[0], L"Skip remove files 'R', 'C:\\x\\y'. A major upgrade is removing this product "
                            L"(UPGRADINGPRODUCTCODE) and the row lacks 0x40.");
}

TEST(RemoveFilePlan, SortsRowsByPhaseWithABackupFolderOnTheSameVolume) {
    test::FakeComponentStates states;
    FakeMachine machine;
    machine.folders = {L"C:\\app\\data"};
    RecordingLogSink log;
    const RemoveFilePhases phases = PlanRemoveFiles(
        {{L"Folder", L"Install", L"C:\\app\\data", Deferred, OnInstall, L""},
         {L"Pattern", L"Install", L"C:\\app\\logs\\*.log", Deferred, OnInstall, L""},
         {L"Same", L"Install", L"C:\\APP\\Logs\\old.txt", Deferred, OnInstall, L""},
         {L"Now", L"Install", L"C:\\a", Immediate, OnInstall, L""},
         {L"Commit", L"Install", L"C:\\b", Commit, OnInstall, L""},
         {L"Rollback", L"Install", L"C:\\c", RollbackOnly, OnInstall, L""},
         {L"Restart", L"Install", L"C:\\d", AtRestart, OnInstall, L""},
         {L"Bad", L"Install", L"C:\\e", 9, OnInstall, L""}},
        states, false, machine, log);
    ASSERT_EQ(phases.deferred.size(), 4u);
    // A whole folder keeps its files beside it; a pattern's files stay inside the folder.
    EXPECT_EQ(phases.deferred[0].backup, L"C:\\app\\~rfxu1");
    EXPECT_TRUE(phases.deferred[0].wholeFolder);
    EXPECT_EQ(phases.deferred[1].backup, L"C:\\app\\logs\\~rfxu2");
    EXPECT_FALSE(phases.deferred[1].wholeFolder);
    EXPECT_EQ(phases.deferred[2].backup, L"C:\\app\\logs\\~rfxu2");  // the same folder shares one backup
    EXPECT_EQ(phases.deferred[3].id, L"Restart");
    EXPECT_EQ(phases.deferred[3].backup, L"");
    EXPECT_EQ(phases.immediate.size(), 1u);
    EXPECT_EQ(phases.commit.size(), 1u);
    EXPECT_EQ(phases.rollback.size(), 1u);
    EXPECT_NE(std::find(log.lines.begin(), log.lines.end(),
                        L"The row 'Bad' names phase 9, which is none of 0 to 4: it is carried out nowhere."),
              log.lines.end());

    RemoveFileActionData data;
    data.mode = L"commit";
    data.items = phases.deferred;
    data.undo = phases.commit;
    data.snapshot = {true, {{L"\\??\\C:\\a", L""}}};
    const RemoveFileActionData back = DecodeRemoveFileActionData(EncodeRemoveFileActionData(data));
    EXPECT_EQ(back.mode, data.mode);
    EXPECT_EQ(back.items, data.items);
    EXPECT_EQ(back.undo, data.undo);
    EXPECT_EQ(back.snapshot, data.snapshot);
}

}  // namespace
}  // namespace setup
