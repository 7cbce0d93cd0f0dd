#include "actions/files/cabinet_plan.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "runtime/fake_component_states.h"
#include "services/path.h"

namespace setup {
namespace {

using namespace cabinet;

class FakeMachine : public CabinetMachine {
public:
    std::wstring NewUuid() override { return L"u" + std::to_wstring(++uuids); }
    std::optional<CabinetRecord> ReadRecord(const CabinetItem& item) override {
        const auto it = records.find(item.id);
        if (it == records.end()) return std::nullopt;
        return it->second;
    }
    std::map<std::wstring, CabinetRecord> records;
    int uuids = 0;
};

TEST(CabinetPlan, RefusesNamesThatLeaveTheTargetFolder) {
    for (const wchar_t* name : {L"a.txt", L"sub\\b.bin", L"sub/deeper/c.txt", L"caf\u00e9.txt", L"..a", L"a..b\\c"}) {
        EXPECT_EQ(CabinetNameProblem(name), L"") << name;
    }
    const std::pair<const wchar_t*, const wchar_t*> refused[] = {
        {L"..\\evil.txt", L"it climbs out of the target folder ('..')"},
        {L"sub\\..\\..\\evil.txt", L"it climbs out of the target folder ('..')"},
        {L"sub/../x", L"it climbs out of the target folder ('..')"},
        {L"..", L"it climbs out of the target folder ('..')"},
        {L"\\windows\\x.dll", L"it begins with a separator"},
        {L"/etc/x", L"it begins with a separator"},
        {L"C:x.txt", L"it holds ':' (a drive or a stream)"},
        {L"a.txt:stream", L"it holds ':' (a drive or a stream)"},
        {L"sub\\\\x", L"it has an empty component"},
        {L"sub\\.\\x", L"it has an empty component"},
        {L"sub\\", L"it has an empty component"},
        {L"", L"the name is empty"},
        {L"x.", L"a component ends in a dot or a blank"},
        {L"dir \\x", L"a component ends in a dot or a blank"},
        {L"a\x01.txt", L"it holds a character no file name can hold"},
        {L"a?.txt", L"it holds a character no file name can hold"},
    };
    for (const auto& [name, why] : refused) EXPECT_EQ(CabinetNameProblem(name), why) << name;

    EXPECT_EQ(CabinetTargetProblem(L"C:\\app\\data"), L"");
    EXPECT_EQ(CabinetTargetProblem(L"\\\\server\\share\\data"), L"");
    for (const wchar_t* root : {L"C:\\", L"C:", L"\\\\server\\share", L"\\\\?\\C:\\", L"\\\\?\\UNC\\server\\share\\"}) {
        EXPECT_EQ(CabinetTargetProblem(root), L"it is the root of a drive or share") << root;
    }
    EXPECT_NE(CabinetTargetProblem(L"data"), L"");  // relative
}

TEST(CabinetPlan, InstallAndUninstallRowsGoToTheirOwnActions) {
    test::FakeComponentStates states;
    FakeMachine machine;
    machine.records[L"Gone"] = {L"C:\\old\\data", {L"C:\\old\\data\\a.txt"}, {L"C:\\old\\data"}};
    machine.records[L"Empty"] = {L"C:\\app\\data", {}, {}};
    const std::vector<CabinetRow> rows = {
        {L"New", L"C:\\app\\p.cab", L"C:\\app\\data\\", PerUser, L"Install", L""},
        {L"Again", L"C:\\app\\p.cab", L"C:\\app\\again", 0, L"Reinstall", L""},
        {L"Off", L"C:\\app\\p.cab", L"C:\\app\\off", 0, L"Install", L"FALSE"},
        {L"Idle", L"C:\\app\\p.cab", L"C:\\app\\idle", 0, L"Idle", L""},
        {L"Gone", L"C:\\app\\p.cab", L"C:\\app\\data", 0, L"Remove", L""},
        {L"Kept", L"C:\\app\\p.cab", L"C:\\app\\data", KeepOnUninstall, L"Remove", L""},
        {L"Empty", L"C:\\app\\p.cab", L"C:\\app\\data", 0, L"Remove", L""},
        {L"Never", L"C:\\app\\p.cab", L"C:\\app\\data", 0, L"Remove", L""},
    };
    RecordingLogSink log;
    const std::vector<CabinetItem> install = PlanCabinets(rows, states, false, L"{P}", machine, log);
    ASSERT_EQ(install.size(), 2u);
    EXPECT_EQ(install[0], (CabinetItem{L"New", L"C:\\app\\p.cab", L"C:\\app\\data", PerUser, false,
                                       L"C:\\app\\~cabu1", L"{P}", {}}));
    EXPECT_EQ(install[1].id, L"Again");
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
                             L"Need to extract cabinet 'New', 'C:\\app\\p.cab' to 'C:\\app\\data\\'. Component to do 1.",
                             L"Need to extract cabinet 'Again', 'C:\\app\\p.cab' to 'C:\\app\\again'. Component to do 3.",
                             L"Skip cabinet 'Off', 'C:\\app\\p.cab'. Condition is '0'.",
                             L"Skip cabinet 'Idle', 'C:\\app\\p.cab' for null-action component.",
                         }));

    RecordingLogSink uninstallLog;
    const std::vector<CabinetItem> uninstall = PlanCabinets(rows, states, true, L"{P}", machine, uninstallLog);
    // The recorded target counts, not the row's (a property may differ now).
    ASSERT_EQ(uninstall.size(), 1u);
    EXPECT_EQ(uninstall[0].target, L"C:\\old\\data");
    EXPECT_EQ(uninstall[0].work, L"C:\\old\\~cabu3");
    EXPECT_TRUE(uninstall[0].remove);
    EXPECT_EQ(uninstall[0].record, machine.records[L"Gone"]);
    EXPECT_EQ(uninstallLog.lines[1], L"Skip cabinet 'Kept', 'C:\\app\\p.cab'. Its files stay on uninstall (0x8).");
    EXPECT_EQ(uninstallLog.lines.back(), L"Nothing to remove for cabinet 'Never': no files of it are recorded.");

    // Everything travels to the deferred actions and back.
    CabinetActionData data{{install[0], uninstall[0]}, L"C:\\w|x=y.txt", {}, {}};
    const CabinetActionData back = DecodeCabinetActionData(EncodeCabinetActionData(data));
    EXPECT_EQ(back.items, data.items);
    EXPECT_EQ(back.warningsFile, data.warningsFile);
}

TEST(CabinetPlan, RecordsMergeAndJournalsSurviveAnUnfinishedLine) {
    const CabinetRecord earlier{L"C:\\a", {L"C:\\a\\x.txt", L"C:\\a\\y.txt"}, {L"C:\\a"}};
    const CabinetRecord added{L"C:\\a", {L"C:\\A\\X.TXT", L"C:\\a\\z.txt"}, {L"C:\\a", L"C:\\a\\sub"}};
    const CabinetRecord merged = MergeCabinetRecords(earlier, added);
    EXPECT_EQ(merged.files, (std::vector<std::wstring>{L"C:\\a\\x.txt", L"C:\\a\\y.txt", L"C:\\a\\z.txt"}));
    EXPECT_EQ(merged.folders, (std::vector<std::wstring>{L"C:\\a", L"C:\\a\\sub"}));
    EXPECT_EQ(DecodeCabinetRecord(EncodeCabinetRecord(merged)), merged);

    const std::vector<JournalEntry> entries = {
        {JournalEntry::Folder, L"C:\\a\\sub", L""},
        {JournalEntry::Replaced, L"C:\\a\\x^y>z.txt", L"C:\\w\\old\\x^y>z.txt"},
        {JournalEntry::Record, EncodeCabinetRecord(merged), L""},
        {JournalEntry::Record, L"", L""},
    };
    std::wstring text;
    for (const JournalEntry& entry : entries) text += EncodeJournalEntry(entry);
    EXPECT_EQ(DecodeJournal(text), entries);
    // A crash while a line was written: that step was never taken.
    const std::wstring unfinished = text + EncodeJournalEntry({JournalEntry::Placed, L"C:\\a\\q", L""}).substr(0, 9);
    EXPECT_EQ(DecodeJournal(unfinished), entries);
}

}  // namespace
}  // namespace setup
