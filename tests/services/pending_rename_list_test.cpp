#include "services/pending_rename_list.h"

#include <gtest/gtest.h>

#include <string>

#include "services/path.h"

namespace setup {
namespace {

using namespace std::string_literals;

TEST(PendingRenameList, ValuesThatAreNotPairsAreNotLists) {
    const std::wstring cases[] = {
        L"\\??\\C:\\a\0\\??\\C:\\b\0"s,  // no closing NUL
        L"\\??\\C:\\a\0\\??\\C:\\b"s,    // the last string has no NUL
        L"\\??\\C:\\a\0\0"s,              // an odd number of strings
        L"x"s,
    };
    for (const auto& raw : cases) EXPECT_FALSE(ParsePendingRenames(raw).has_value()) << raw.size();
    EXPECT_EQ(ParsePendingRenames(L""s), PendingRenameList{});  // the empty list of zero bytes
    EXPECT_EQ(ParsePendingRenames(L"\0"s), PendingRenameList{});
}

TEST(PendingRenameList, EntriesRoundTripExactlyAsStored) {
    // Another program's replacing rename ("!" before the prefix), a delete and
    // an unprefixed target come back byte for byte.
    const std::wstring raw = L"\\??\\C:\\stage\\TBM1.tmp\0!\\??\\C:\\app\\a.txt\0"
                             L"\\??\\C:\\app\\old.txt\0\0"
                             L"\\??\\C:\\x\0D:\\plain\0\0"s;
    const PendingRenameList list = ParsePendingRenames(raw).value();
    EXPECT_EQ(list, (PendingRenameList{{L"\\??\\C:\\stage\\TBM1.tmp", L"!\\??\\C:\\app\\a.txt"},
                                       {L"\\??\\C:\\app\\old.txt", L""},
                                       {L"\\??\\C:\\x", L"D:\\plain"}}));
    EXPECT_EQ(SerializePendingRenames(list), raw);
    EXPECT_EQ(SerializePendingRenames({}), L"");
    EXPECT_EQ(DecodePendingRenames(EncodePendingRenames(list)), list);
    EXPECT_EQ(AddNtPrefix(L""), L"");
    EXPECT_EQ(RemoveNtPrefix(L"!\\??\\C:\\a"), L"C:\\a");
}

struct Plan {
    PendingRenameRollback result;
    std::vector<std::wstring> log;
};

Plan RunPlan(const PendingRenameSnapshot& snapshot, const PendingRenameList& current, std::set<std::wstring> paths) {
    RecordingLogSink log;
    Plan plan{PlanPendingRenameRollback(snapshot, current, paths, log), {}};
    plan.log = log.lines;
    return plan;
}

TEST(PendingRenameRollback, TakesBackOnlyOurEntriesAndKeepsForeignOnesByteForByte) {
    const PendingRenameList before = {{L"\\??\\C:\\other\\x", L""}};
    PendingRenameList current = before;
    current.push_back({L"\\??\\C:\\app\\a.txt", L""});                    // ours: delete the destination at restart
    current.push_back({L"\\??\\C:\\src\\TBM2.tmp", L"\\??\\C:\\app\\a.txt"});  // ours: the staged copy onto it
    current.push_back({L"\\??\\C:\\f\\new.dll", L"!\\??\\C:\\app\\a.txt"});    // another program's replacing rename
    current.push_back({L"\\??\\C:\\app\\a.txt", L"\\??\\C:\\moved"});          // a rename away from ours: not ours
    const Plan plan = RunPlan({true, before}, current, {L"C:\\app\\a.txt"});
    EXPECT_EQ(plan.result.write, PendingRenameWrite::Write);
    EXPECT_EQ(plan.result.kept, (PendingRenameList{before[0], current[3], current[4]}));
    EXPECT_EQ(plan.result.deletions, std::vector<std::wstring>{L"C:\\src\\TBM2.tmp"});
    EXPECT_EQ(plan.log, (std::vector<std::wstring>{
                            L"Rollback pending rename 'C:\\app\\a.txt' -> ''.",
                            L"Rollback pending rename 'C:\\src\\TBM2.tmp' -> 'C:\\app\\a.txt'.",
                            L"Need to delete rollback file 'C:\\src\\TBM2.tmp'.",
                        }));
}

TEST(PendingRenameRollback, PutsBackWhatWasThereAndWritesNothingWhenNothingIsOurs) {
    const PendingRenameList ours = {{L"\\??\\C:\\b", L""}, {L"\\??\\C:\\t.tmp", L"\\??\\C:\\b"}};
    // No value before: nothing left means no value after, not an empty one.
    EXPECT_EQ(RunPlan({false, {}}, ours, {L"C:\\b"}).result.write, PendingRenameWrite::Remove);
    // An empty value before stays an empty value, also when Wine wrote our first entry one character early.
    EXPECT_EQ(RunPlan({true, {}}, ours, {L"C:\\b"}).result.write, PendingRenameWrite::Write);
    const Plan mangled = RunPlan({true, {}}, {{L"??\\C:\\b", L""}, ours[1]}, {L"C:\\b"});
    EXPECT_EQ(mangled.result.kept, PendingRenameList{});
    // A snapshot longer than the list: someone trimmed it already.
    const Plan longer = RunPlan({true, {{L"1", L""}, {L"2", L""}, {L"3", L""}}}, ours, {L"C:\\b"});
    EXPECT_EQ(longer.result.write, PendingRenameWrite::None);
    EXPECT_TRUE(longer.result.deletions.empty());
    // Entries the snapshot already had are never touched, even for a rollback path.
    const Plan older = RunPlan({true, ours}, ours, {L"C:\\b"});
    EXPECT_EQ(older.result.write, PendingRenameWrite::None);
    EXPECT_TRUE(older.log.empty());
}

TEST(PendingRenameRollback, AQueuedMoveGoesWithoutItsSourceAndIsFoundOnlyOnce) {
    const PendingRenameList current = {{L"\\??\\C:\\app\\a.txt", L""},
                                       {L"\\??\\C:\\user\\mine.txt", L"\\??\\C:\\app\\a.txt"}};
    RecordingLogSink log;
    const PendingRenameRollback plan =
        PlanPendingRenameRollback({true, {}}, current, {L"C:\\app\\a.txt"}, log, {L"C:\\user\\mine.txt"});
    EXPECT_TRUE(plan.kept.empty());
    EXPECT_TRUE(plan.deletions.empty());  // the user's own file, not a staging copy
    EXPECT_TRUE(HasPendingRename(current, L"c:\\USER\\mine.txt", L"C:\\app\\A.TXT"));
    EXPECT_TRUE(HasPendingRename({{L"\\??\\C:\\s", L"!\\??\\C:\\d"}}, L"C:\\s", L"C:\\d"));
    EXPECT_FALSE(HasPendingRename(current, L"C:\\app\\a.txt", L""));  // a deletion is not a rename
    EXPECT_FALSE(HasPendingRename(current, L"C:\\app\\a.txt", L"C:\\user\\mine.txt"));
}

TEST(Path, OnlyAbsolutePathsWithoutForbiddenCharactersMayBeWritten) {
    for (const wchar_t* good : {L"C:\\a\\b.txt", L"c:/a", L"\\\\server\\share\\f", L"\\\\?\\C:\\long\\x",
                                L"\\\\?\\UNC\\server\\share\\x"}) {
        EXPECT_EQ(PathProblem(good), L"") << good;
    }
    for (const wchar_t* relative : {L"relative.txt", L"a\\b", L"\\rooted", L"C:drive-relative", L"", L"\\\\server",
                                    L"\\\\\\share", L"\\\\?\\relative"}) {
        EXPECT_EQ(PathProblem(relative), L"it is not an absolute path (a drive or a network share)") << relative;
    }
    EXPECT_EQ(PathProblem(L"C:\\x.man\" /rf:\"C:\\evil.dll"), L"it holds '\"', which no Windows path can hold");
    EXPECT_EQ(PathProblem(L"C:\\a|b"), L"it holds '|', which no Windows path can hold");
    EXPECT_EQ(PathProblem(L"C:\\file.txt:stream"), L"it holds ':', which no Windows path can hold");
    EXPECT_EQ(PathProblem(L"C:\\a\nb"), L"it holds a control character (code 10), which no Windows path can hold");
}

// Every spelling of a guarded folder is that folder once normalised.
TEST(Path, EverySpellingOfAFolderIsCheckedAsTheFolderItNames) {
    const std::vector<std::wstring> guarded = {L"C:\\windows", L"C:\\Program Files"};
    const std::pair<const wchar_t*, const wchar_t*> spellings[] = {
        {L"C:\\bi\\..\\windows", L"C:\\windows"},
        {L"C:\\bi\\..", L"C:\\"},
        {L"C:/a/./b/../../WINDOWS/", L"C:\\WINDOWS\\"},
        {L"\\\\?\\C:\\x\\..\\Windows", L"C:\\Windows"},
        {L"C:\\windows. .\\", L"C:\\windows\\"},
        {L"C:\\..\\..\\Program Files ", L"C:\\Program Files"},
        {L"\\\\?\\UNC\\srv\\share\\a\\..", L"\\\\srv\\share\\"},
    };
    for (const auto& [spelling, normal] : spellings) {
        EXPECT_EQ(NormalizePath(spelling), normal) << spelling;
        EXPECT_NE(ProtectedPathProblem(spelling, guarded), L"") << spelling;
    }
    EXPECT_EQ(NormalizePath(L"C:\\app\\.\\x.txt"), L"C:\\app\\x.txt");
    EXPECT_EQ(ProtectedPathProblem(L"C:\\app\\..\\app2", guarded), L"");
    EXPECT_EQ(ProtectedPathProblem(L"C:\\windows\\..\\windows\\app", guarded), L"");
    EXPECT_EQ(ProtectedPathProblem(L"C:\\", guarded), L"it is the root of a drive or share");
    EXPECT_EQ(ProtectedPathProblem(L"C:\\x\\..\\PROGRAM FILES", guarded), L"it is a system folder (C:\\Program Files)");
    for (const wchar_t* device : {L"\\\\.\\PhysicalDrive0", L"\\??\\C:\\x", L"\\\\?\\GLOBALROOT\\Device\\x"}) {
        EXPECT_EQ(PathProblem(device), L"it is a device path") << device;
        EXPECT_EQ(NormalizePath(device), device);
    }
    EXPECT_EQ(PathProblem(L"C:\\app\\nul.txt"), L"it names the device 'nul.txt'");
    EXPECT_EQ(PathProblem(L"C:\\app\\com1"), L"it names the device 'com1'");
    EXPECT_EQ(PathProblem(L"C:\\app\\com10\\console.txt"), L"");
}

TEST(Path, DirectoryJoinAndLongForm) {
    EXPECT_EQ(DirectoryOf(L"C:\\a\\b.txt"), L"C:\\a");
    EXPECT_EQ(DirectoryOf(L"C:/a/b.txt"), L"C:/a");
    EXPECT_EQ(DirectoryOf(L"b.txt"), L"");
    EXPECT_EQ(JoinPath(L"C:\\a", L"b"), L"C:\\a\\b");
    EXPECT_EQ(JoinPath(L"C:\\a\\", L"b"), L"C:\\a\\b");
    EXPECT_EQ(JoinPath(L"", L"b"), L"b");
    EXPECT_EQ(JoinPath(L"C:\\a", L""), L"C:\\a");
    // Windows reads a path past 260 characters only in the long form (Wine reads either).
    EXPECT_EQ(LongPathForm(L"C:/a\\b"), L"\\\\?\\C:\\a\\b");
    EXPECT_EQ(LongPathForm(L"\\\\server\\share\\f"), L"\\\\?\\UNC\\server\\share\\f");
    EXPECT_EQ(LongPathForm(L"\\\\?\\C:\\x"), L"\\\\?\\C:\\x");
}

}  // namespace
}  // namespace setup
