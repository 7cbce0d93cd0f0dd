#include "actions/files/text_file_plan.h"

#include <gtest/gtest.h>

#include "runtime/exception.h"
#include "runtime/fake_component_states.h"

#include <set>
#include <string>

namespace setup {
namespace {

class FakeMachine : public TextFileMachine {
public:
    bool FileExists(const std::wstring& path) override { return files.count(path) != 0; }
    std::wstring NewUuid() override { return L"uuid-" + std::to_wstring(++uuids); }
    std::wstring LockFilesOnUpdate() override {
        ++lockReads;
        return lock;
    }
    std::vector<std::wstring> FormatAll(const std::vector<std::wstring>& texts) override { return texts; }
    std::set<std::wstring> files;  // existing files; a directory is simply not listed
    std::wstring lock;
    int uuids = 0;
    int lockReads = 0;
};

struct Fixture {
    test::FakeComponentStates states;
    FakeMachine machine;
    RecordingLogSink log;
    std::vector<TextFileItem> Plan(const std::vector<TextFileRow>& rows) {
        return PlanTextFiles(rows, states, machine, log);
    }
    bool Logged(const std::wstring& line) const {
        return std::find(log.lines.begin(), log.lines.end(), line) != log.lines.end();
    }
};

TEST(TextFilePlan, SelectsRowsByComponentAndConditionWithTheirTexts) {
    Fixture f;
    const auto items = f.Plan({
        {L"A", L"C:\\t\\a.txt", L"a", L"Install", L""},
        {L"B", L"C:\\t\\a.txt", L"b", L"Reinstall", L"TRUE"},
        {L"C", L"C:\\t\\a.txt", L"c", L"Install", L"FALSE"},
        {L"D", L"C:\\t\\a.txt", L"d", L"Install", L"BROKEN"},
        {L"E", L"C:\\t\\a.txt", L"e", L"Remove", L""},
        {L"F", L"C:\\t\\a.txt", L"f", L"Idle", L""},
        {L"G", L"C:\\t\\a.txt", L"g", L"Unknown", L""},
    });
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].content, L"ab\n");
    for (const std::wstring& line : std::vector<std::wstring>{
             L"Need to install text line 'A'. Component 'Install' to do 1.",
             L"Need to install text line 'B'. Component 'Reinstall' to do 3.",
             L"Skip install text line 'C', 'FALSE'. Condition is '0'.",
             L"Skip install text line 'D', 'BROKEN'. Condition is '3'.",
             L"Skip install text line 'E'. Component 'Remove' is not marked to install.",
             L"Skip install text line 'F' for null-action component 'Idle'.",
             L"Skip install text line 'G' for null-action component 'Unknown'.",
         }) {
        EXPECT_TRUE(f.Logged(line)) << line;
    }
    Fixture none;
    EXPECT_TRUE(none.Plan({{L"A", L"x", L"a", L"Install", L"FALSE"}}).empty());
}

TEST(TextFilePlan, ComposesContentPerTargetInOrdinalCaseSensitiveOrder) {
    Fixture f;
    const auto items = f.Plan({
        {L"1", L"C:\\t\\b.txt", L"A", L"Install", L""},
        {L"2", L"C:\\t\\B.txt", L"upper", L"Install", L""},
        {L"3", L"C:\\t\\b.txt", L"B", L"Install", L""},
        {L"4", L"C:\\t\\b.txt", L"C", L"Install", L""},
        {L"5", L"C:\\t\\a.txt", L"only", L"Install", L""},
    });
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].path, L"C:\\t\\B.txt");  // 'B' sorts before 'a' and 'b' by code unit
    EXPECT_EQ(items[0].content, L"upper");      // one row: no line end
    EXPECT_EQ(items[1].path, L"C:\\t\\a.txt");
    EXPECT_EQ(items[2].path, L"C:\\t\\b.txt");
    EXPECT_EQ(items[2].content, L"AB\nC\n");    // A, B, line feed, C, line feed
}

TEST(TextFilePlan, BacksUpExistingFilesOnlyAndReadsTheLockPropertyPerFile) {
    Fixture f;
    f.machine.files = {L"C:\\t\\old.txt"};
    f.machine.lock = L"1";
    const auto items = f.Plan({
        {L"1", L"C:\\t\\old.txt", L"x", L"Install", L""},
        {L"2", L"C:\\t\\dir", L"x", L"Install", L""},  // an existing directory is not a file: no backup
    });
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].rbf, L"");
    EXPECT_EQ(items[1].rbf, L"C:\\t\\uuid-1");
    for (const auto& item : items) EXPECT_EQ(item.atr, kTextFileReplaceAtReboot);
    EXPECT_EQ(f.machine.lockReads, 2);

    for (const std::wstring& value : std::vector<std::wstring>{L"true", L"01", L" 1", L""}) {
        Fixture g;
        g.machine.lock = value;
        EXPECT_EQ(g.Plan({{L"1", L"C:\\x", L"y", L"Install", L""}})[0].atr, 0) << value;
    }
}

TEST(TextFilePlan, AChosenRowWithAnEmptyRelativeOrMalformedFileFailsNamingTheRow) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"", L"The file is empty in R"},
        {L"relative.txt", L"The file 'relative.txt' of text line 'R' is refused: it is not an absolute path (a drive "
                          L"or a network share)."},
        {L"C:\\a\"b.txt", L"The file 'C:\\a\"b.txt' of text line 'R' is refused: it holds '\"', which no Windows "
                           L"path can hold."},
    };
    for (const auto& [file, message] : cases) {
        Fixture f;
        try {
            f.Plan({{L"R", file, L"x", L"Install", L""}});
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(e.Message(), message);
        }
        EXPECT_TRUE(f.Plan({{L"R", file, L"x", L"Remove", L""}}).empty());  // a skipped row is not looked at
    }
}

TEST(TextFilePlan, LogsContentWithoutBracketsButKeepsThemInTheFile) {
    Fixture f;
    const auto items = f.Plan({{L"1", L"C:\\t\\a.ini", L"[Section] key=[[x]]", L"Install", L""}});
    EXPECT_EQ(items[0].content, L"[Section] key=[[x]]");
    EXPECT_TRUE(f.Logged(L"Configuring text file C:\\t\\a.ini."));
    EXPECT_TRUE(f.Logged(L"Generated text file content:\nSection key=x"));
    EXPECT_TRUE(f.Logged(L"The text file C:\\t\\a.ini (0) was successfully configured."));
}

TEST(TextFilePlan, EncodesTheItemLayoutTheDeferredSideReads) {
    TextFileActionData data;
    data.items = {{L"C:\\a|b.txt", L"C:\\x", L"line^1\nline;2", 1}, {L"C:\\c.txt", L"", L"", 0}};
    data.snapshot = {true, {{L"\\??\\C:\\s", L""}}};
    const std::wstring encoded = EncodeTextFileActionData(data);
    EXPECT_EQ(encoded,
              L"files=00000000*atr>1^content>line^^1\nline;;2^path>C:\\a||b.txt^rbf>C:\\x;00000001*atr>0^content>^"
              L"path>C:\\c.txt^rbf>|pfe=1|pfr=00000000*dst>^src>\\??\\C:\\s");
    const TextFileActionData back = DecodeTextFileActionData(encoded);
    EXPECT_EQ(back.items, data.items);
    EXPECT_EQ(back.snapshot, data.snapshot);
}

}  // namespace
}  // namespace setup
