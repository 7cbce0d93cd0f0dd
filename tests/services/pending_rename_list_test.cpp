#include "services/pending_rename_list.h"

#include <gtest/gtest.h>

#include <string>

#include "services/path.h"

namespace setup {
namespace {

using namespace std::string_literals;

TEST(PendingRenameList, MalformedDataReadsAsAnEmptyList) {
    const std::wstring cases[] = {
        L""s,
        L"\0"s,                          // fewer than two characters
        L"\\??\\C:\\a\0\\??\\C:\\b\0"s,  // no double NUL at the end
        L"\\??\\C:\\a\0\\??\\C:\\b"s,
    };
    for (const auto& raw : cases) EXPECT_TRUE(ParsePendingRenames(raw).empty()) << raw.size();
}

TEST(PendingRenameList, ParsesRenamesDeletesAndUnprefixedTargets) {
    const std::wstring raw = L"\\??\\C:\\stage\\TBM1.tmp\0!\\??\\C:\\app\\a.txt\0"
                             L"\\??\\C:\\app\\old.txt\0\0"
                             L"\\??\\C:\\x\0D:\\plain\0\0"s;
    const PendingRenameList list = ParsePendingRenames(raw);
    const PendingRenameList expected = {
        {L"C:\\stage\\TBM1.tmp", L"C:\\app\\a.txt"},  // "!" before the prefix (replace flag) is dropped with it
        {L"C:\\app\\old.txt", L""},                    // a delete entry
        {L"C:\\x", L"D:\\plain"},                      // a target without "\??\" stays whole
    };
    EXPECT_EQ(list, expected);
}

TEST(PendingRenameList, SerialisesWithPrefixesAndTheClosingNul) {
    const PendingRenameList list = {{L"C:\\a", L"C:\\b"}, {L"C:\\gone", L""}};
    const std::wstring raw = SerializePendingRenames(list);
    EXPECT_EQ(raw, L"\\??\\C:\\a\0\\??\\C:\\b\0\\??\\C:\\gone\0\0\0"s);  // delete: source, NUL, lone NUL
    EXPECT_EQ(ParsePendingRenames(raw), list);
    EXPECT_EQ(SerializePendingRenames({}), L"");
    EXPECT_EQ(DecodePendingRenames(EncodePendingRenames(list)), list);
    EXPECT_TRUE(DecodePendingRenames(EncodePendingRenames({})).empty());
}

struct Plan {
    PendingRenameRollback result;
    std::vector<std::wstring> log;
};

Plan RunPlan(const PendingRenameList& snapshot, const PendingRenameList& current, std::set<std::wstring> paths) {
    RecordingLogSink log;
    Plan plan{PlanPendingRenameRollback(snapshot, current, paths, log), {}};
    plan.log = log.lines;
    return plan;
}

TEST(PendingRenameRollback, CopyAtRestartForARolledBackTargetGoesAndOnlyTheStagingFileIsDeleted) {
    const PendingRenameList before = {{L"C:\\other\\x", L""}};
    PendingRenameList current = before;
    current.push_back({L"C:\\app\\a.txt", L""});                    // delete the destination at restart
    current.push_back({L"C:\\src\\TBM2.tmp", L"C:\\app\\a.txt"});   // then rename the staged copy onto it
    current.push_back({L"C:\\foreign\\y", L"C:\\foreign\\z"});      // another program's, added later
    const Plan plan = RunPlan(before, current, {L"C:\\app\\a.txt"});
    EXPECT_TRUE(plan.result.rewrite);
    EXPECT_EQ(plan.result.kept, (PendingRenameList{{L"C:\\other\\x", L""}, {L"C:\\foreign\\y", L"C:\\foreign\\z"}}));
    EXPECT_EQ(plan.result.deletions, std::vector<std::wstring>{L"C:\\src\\TBM2.tmp"});
    EXPECT_EQ(plan.log, (std::vector<std::wstring>{
                            L"Rollback pending rename 'C:\\app\\a.txt' -> ''.",
                            L"Rollback pending rename 'C:\\src\\TBM2.tmp' -> 'C:\\app\\a.txt'.",
                            L"Need to delete rollback file 'C:\\src\\TBM2.tmp'.",
                        }));
}

TEST(PendingRenameRollback, LeavesTheListAloneWhenNothingOfOursIsThere) {
    const PendingRenameList current = {{L"C:\\a", L"C:\\b"}};
    // A snapshot longer than the list: someone trimmed it already.
    Plan longer = RunPlan({{L"1", L""}, {L"2", L""}}, current, {L"C:\\b"});
    EXPECT_FALSE(longer.result.rewrite);
    EXPECT_EQ(longer.result.kept, current);
    EXPECT_TRUE(longer.result.deletions.empty());
    // Entries the snapshot already had are never touched, even for a rollback path.
    Plan older = RunPlan(current, current, {L"C:\\b"});
    EXPECT_FALSE(older.result.rewrite);
    EXPECT_TRUE(older.log.empty());
}

TEST(Path, DirectoryAndJoin) {
    EXPECT_EQ(DirectoryOf(L"C:\\a\\b.txt"), L"C:\\a");
    EXPECT_EQ(DirectoryOf(L"C:/a/b.txt"), L"C:/a");
    EXPECT_EQ(DirectoryOf(L"b.txt"), L"");
    EXPECT_EQ(JoinPath(L"C:\\a", L"b"), L"C:\\a\\b");
    EXPECT_EQ(JoinPath(L"C:\\a\\", L"b"), L"C:\\a\\b");
    EXPECT_EQ(JoinPath(L"", L"b"), L"b");
    EXPECT_EQ(JoinPath(L"C:\\a", L""), L"C:\\a");
}

}  // namespace
}  // namespace setup
