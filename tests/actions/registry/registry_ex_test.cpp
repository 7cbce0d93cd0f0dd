#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "actions/registry/registry_ex_plan.h"
#include "actions/registry/registry_notation.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/fake_component_states.h"

namespace setup {
namespace {

std::vector<unsigned char> Utf16(std::wstring_view text) {
    std::vector<unsigned char> bytes;
    for (const wchar_t c : text) {
        bytes.push_back(static_cast<unsigned char>(c & 0xFF));
        bytes.push_back(static_cast<unsigned char>(c >> 8));
    }
    return bytes;
}

std::wstring Failure(std::wstring_view value) {
    try {
        ParseValueNotation(L"n", value);
    } catch (const Exception& e) {
        return e.Message();
    }
    return L"(accepted)";
}

TEST(RegistryNotation, EveryNotationWritesItsTypeAndRendersForTheRegistryEditor) {
    struct Case { std::wstring value; std::uint32_t type; std::vector<unsigned char> data; std::wstring line; };
    const std::vector<Case> cases = {
        {L"#x0A0B", kRegBinary, {0x0A, 0x0B}, L"hex:0a,0b"},
        {L"#xabc", kRegBinary, {0x0A, 0xBC}, L"hex:0a,bc"},  // a zero in front, as the Registry table reads it
        {L"#%%P%", kRegExpandSz, Utf16(std::wstring(L"%P%") + L'\0'), L"hex(2):25,00,50,00,25,00,00,00"},
        {L"#123", kRegDword, {0x7B, 0, 0, 0}, L"dword:0000007b"},
        {L"# +7z", kRegDword, {7, 0, 0, 0}, L"dword:00000007"},
        {L"#-1", kRegDword, {0xFF, 0xFF, 0xFF, 0xFF}, L"dword:ffffffff"},
        {L"##1", kRegSz, Utf16(std::wstring(L"#1") + L'\0'), L"\"#1\""},
        {L"##a[~]b", kRegMultiSz, Utf16(std::wstring(L"#a\0b\0\0", 6)), L"hex(7):23,00,61,00,00,00,62,00,00,00,00,00"},
        {L"a[~]b", kRegMultiSz, Utf16(std::wstring(L"a\0b\0\0", 5)), L"hex(7):61,00,00,00,62,00,00,00,00,00"},
        {std::wstring(L"a\0b", 3), kRegMultiSz, Utf16(std::wstring(L"a\0b\0\0", 5)), L"hex(7):61,00,00,00,62,00,00,00,00,00"},
        {L"a\"b\\c", kRegSz, Utf16(std::wstring(L"a\"b\\c") + L'\0'), L"\"a\\\"b\\\\c\""},
        {L"", kRegSz, {0, 0}, L"\"\""},
        {L"#t11:0102030405060708", kRegQword, {1, 2, 3, 4, 5, 6, 7, 8}, L"hex(b):01,02,03,04,05,06,07,08"},
        {L"#t4:2a000000", kRegDword, {42, 0, 0, 0}, L"dword:0000002a"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "value of " << c.value.size() << " characters: " << c.line.size());
        const RegistryValue value = ParseValueNotation(L"n", c.value);
        EXPECT_EQ(value.name, L"n");
        EXPECT_EQ(value.type, c.type);
        EXPECT_EQ(value.data, c.data);
        EXPECT_EQ(RenderRegFileValue(c.value), c.line);
        // What the rollback carries writes the same value back.
        EXPECT_EQ(ParseValueNotation(L"n", RawValueNotation(value)), value);
    }
    EXPECT_EQ(Failure(L"#abc"), L"Failed to convert registry value to dword: #abc (invalid stoul argument)");
    EXPECT_EQ(Failure(L"#4294967296"), L"Failed to convert registry value to dword: #4294967296 (stoul argument out of range)");
    EXPECT_EQ(Failure(L"#"), L"Failed to convert registry value to dword: # (invalid stoul argument)");
    EXPECT_EQ(Failure(L"#xZZ"), L"Failed to convert registry value to binary: #xZZ");
    EXPECT_EQ(Failure(L"#t:00"), L"Failed to convert registry value to raw bytes: #t:00");
    EXPECT_THROW(RenderRegFileValue(L"#x0a\n[-HKEY_LOCAL_MACHINE\\SYSTEM]"), Exception);
    EXPECT_NE(Failure(std::wstring(kMaxValueBytes / 2, L'x')).find(L"more than the 1048576"), std::wstring::npos);
    EXPECT_EQ(Failure(std::wstring(kMaxValueBytes / 2 - 1, L'x')), L"(accepted)");
}

// A string holding any control character is written as hex(1), whose bytes
// are exactly the string's: no line of the file comes from a value.
TEST(RegistryNotation, ControlCharactersInAStringNeverLeaveItsLine) {
    for (wchar_t c = 0; c < 0x20; ++c) {
        const std::wstring text = std::wstring(L"a") + c + L"[-HKEY_LOCAL_MACHINE\\SYSTEM]";
        const std::wstring line = RenderRegFileValue(text);
        SCOPED_TRACE(int{c});
        ASSERT_EQ(line.find_first_of(L"\r\n["), std::wstring::npos);
        ASSERT_TRUE(line.starts_with(c == 0 ? L"hex(7):" : L"hex(1):"));
        std::vector<unsigned char> bytes;
        for (std::size_t i = 7; i < line.size(); i += 3) bytes.push_back(static_cast<unsigned char>(std::stoi(std::wstring(line.substr(i, 2)), nullptr, 16)));
        EXPECT_EQ(bytes, ParseValueNotation(L"n", text).data);
    }
}

TEST(RegistryNotation, KeysAndNamesTheRegistryCannotHoldAreNamed) {
    for (const wchar_t c : {L'\r', L'\n', L'\0'}) {
        const std::wstring bad = std::wstring(L"A") + c + L"[-HKEY_LOCAL_MACHINE\\SYSTEM]";
        EXPECT_EQ(RegistryPathProblem(bad, L"n"), Format(L"the key holds a line break or NUL (code %d), which no registry file can carry", int{c}));
        EXPECT_NE(RegistryPathProblem(L"A", bad), L"");
    }
    EXPECT_EQ(RegistryPathProblem(L"A\\B", L"n"), L"");
    EXPECT_EQ(RegistryPathProblem(std::wstring(255, L'k'), std::wstring(16383, L'n')), L"");
    EXPECT_EQ(RegistryPathProblem(L"", L""), L"the key is empty");
    for (const wchar_t* key : {L"A\\\\B", L"\\A", L"A\\"}) {
        EXPECT_EQ(RegistryPathProblem(key, L""), L"the key '" + std::wstring(key) + L"' has an empty component");
    }
    EXPECT_NE(RegistryPathProblem(L"A\\" + std::wstring(256, L'k'), L""), L"");
    EXPECT_EQ(RegistryPathProblem(L"A", std::wstring(16384, L'n')),
              L"the value name is 16384 characters long, more than the 16383 the registry allows");
}

RegistryExRow Row(std::wstring id, std::wstring component, std::wstring name, std::wstring value, int attributes = 0,
                  std::wstring key = L"Software\\Co") {
    RegistryExRow row;
    row.id = std::move(id);
    row.root = 2;
    row.key = std::move(key);
    row.name = std::move(name);
    row.value = std::move(value);
    row.component = std::move(component);
    row.attributes = attributes;
    return row;
}

class RegistryExDecisions : public testing::Test {
protected:
    void Resolve(std::vector<RegistryExRow>& rows, std::wstring force = L"") {
        ResolveComponentStates(rows, states, force, log);
    }
    test::FakeComponentStates states;
    RecordingLogSink log;
};

TEST_F(RegistryExDecisions, ReadingRulesAndComponentStatesAskedOncePerComponent) {
    RegistryExReading reading;
    reading.system64 = false;
    reading.withoutRollback = L"Alpha;Beta";
    reading.ignoreFile = true;
    RegistryExRow row = Row(L"R", L"Beta", L"n", L"v", 18);
    row.file = L"C:\\x.reg";
    LogRegistryExReading(reading, log);
    ApplyReadingRules(row, reading, log);
    EXPECT_EQ(row.attributes, 16);
    EXPECT_EQ(row.file, L"");
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
                             L"Wow64 redirection disabled.",
                             L"Force removed File attribute due to IgnoreRegistryExFileAttribute was specified.",
                             L"Force removed Win64 attribute from 'R' for x86 operation system.",
                             L"Force add DisableRollback attribute for 'R'.",
                             L"The registry row 'R' was successfully read. component 'Beta'"}));

    log.lines.clear();
    states.states = {{L"A", {2, -1}}, {L"B", {3, 2}}};
    std::vector<RegistryExRow> rows = {Row(L"1", L"A", L"n", L"v"), Row(L"2", L"B", L"n", L"v"),
                                       Row(L"3", L"A", L"m", L"v"), Row(L"4", L"Missing", L"n", L"v")};
    Resolve(rows, L"A B");
    EXPECT_EQ(rows[0].state.action, 3);  // forced
    EXPECT_EQ(rows[2].state.action, 3);
    EXPECT_EQ(rows[1].state.action, 2);  // absent stays absent
    EXPECT_EQ(rows[3].state.installed, -1);
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
                             L"Component: 'A'; Installed: '2'; Action: '-1'",
                             L"Force install 'A' reg file. The component specified in ForceInstallRegFileComponents "
                             L"property.",
                             L"Component: 'B'; Installed: '3'; Action: '2'",
                             L"Failed to get state of component 'Missing'. Error 0x80004005.",
                             L"Component: 'Missing'; Installed: '-1'; Action: '-1'"}));
}

TEST_F(RegistryExDecisions, InstallDecisionAndWhatIsRefusedBeforeScheduling) {
    states.states = {{L"New", {2, 3}}, {L"Again", {3, 3}}, {L"Idle", {3, -1}}, {L"Gone", {3, 2}}};
    std::vector<RegistryExRow> rows = {Row(L"new", L"New", L"n", L"v"), Row(L"again", L"Again", L"n", L"v"),
                                       Row(L"idle", L"Idle", L"n", L"v"), Row(L"gone", L"Gone", L"n", L"v"),
                                       Row(L"cond", L"New", L"n", L"v"), Row(L"file", L"New", L"n", L"v")};
    rows[4].condition = L"BROKEN";
    rows[5].file = L"C:\\x.reg";
    Resolve(rows);
    log.lines.clear();
    const std::vector<RegistryExRow> chosen = PlanRegistryInstall(rows, states, log);
    ASSERT_EQ(chosen.size(), 3u);
    EXPECT_EQ(chosen[2].id, L"file");
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
                             L"Need to install registry row 'new', component 'New'.",
                             L"Need to write registry row directly 'new', component 'New'. Software\\Co, n, v.",
                             L"Need to install registry row 'again', component 'Again'.",
                             L"Need to write registry row directly 'again', component 'Again'. Software\\Co, n, v.",
                             L"Skip install registry row 'idle' for null-action component 'Idle'.",
                             L"Skip install registry row 'gone'. Component is not marked to install.",
                             L"Skip install registry row 'cond'. Condition is '3'.",
                             L"Need to install registry row 'file', component 'New'.",
                             L"Need to write registry row to file 'file', component 'New'. Software\\Co, n, v."}));

    const auto refusal = [&](RegistryExRow row) -> std::wstring {
        row.state = {2, 3};
        try {
            PlanRegistryInstall({row}, states, log);
        } catch (const Exception& e) {
            EXPECT_EQ(e.Code(), kInvalidArgument);
            return e.Message();
        }
        return L"(accepted)";
    };
    RegistryExRow bad = Row(L"bad", L"New", L"n", L"#12x");
    EXPECT_EQ(refusal(bad), L"(accepted)");  // the C library's reading: the digits that lead
    bad.value = L"#x";
    bad.file = L"C:\\x.reg";
    EXPECT_EQ(refusal(bad), L"(accepted)");
    bad.value = L"#no";
    EXPECT_EQ(refusal(bad), L"The registry row 'bad' cannot be written: Failed to convert registry value to dword: #no "
                            L"(invalid stoul argument).");
    bad = Row(L"bad", L"New", L"n", L"v");
    bad.root = 7;
    EXPECT_EQ(refusal(bad).substr(0, 64), L"The registry row 'bad' cannot be written: the root 7 is none of ");
    bad = Row(L"bad", L"New", L"", L"", 0, L"A\\\\B");
    EXPECT_EQ(refusal(bad), L"The registry row 'bad' cannot be written: the key 'A\\\\B' has an empty component.");
}

TEST_F(RegistryExDecisions, UninstallDecisionWithTheSharedValueCheck) {
    states.states = {{L"Going", {3, 2}}, {L"Staying", {3, -1}}, {L"Leaving", {3, 2}}, {L"Coming", {2, 3}},
                     {L"Advertised", {3, 1}}, {L"Idle", {2, -1}}, {L"Elsewhere", {2, -1}}, {L"Unknown", {-1, -1}},
                     {L"Kept", {3, 3}}};
    std::vector<RegistryExRow> rows = {
        Row(L"shared", L"Going", L"s", L"1"), Row(L"other", L"Staying", L"s", L"2"),
        Row(L"own", L"Going", L"o", L"1"),    Row(L"leaving", L"Leaving", L"o", L"1"),
        Row(L"win64", L"Going", L"w", L"1", 2), Row(L"w32", L"Staying", L"w", L"1"),
        Row(L"deleter", L"Going", L"d", L"1"), Row(L"deletes", L"Staying", L"d", L"", 1),
        Row(L"condfalse", L"Going", L"c", L"1"), Row(L"other-false", L"Kept", L"c", L"1"),
        Row(L"empty", L"Going", L"", L""),    Row(L"keyrow", L"Going", L"", L"", 8),
        Row(L"ondelete", L"Going", L"x", L"", 1), Row(L"unknown", L"Unknown", L"u", L"1"),
        Row(L"idle", L"Idle", L"i", L"1"),    Row(L"previous", L"Elsewhere", L"p", L"1"),
        Row(L"coming", L"Coming", L"k", L"1"), Row(L"fileabsent", L"Advertised", L"f", L"1"),
        // The same value in other letters is the same value; under another root it is not.
        Row(L"cased", L"Going", L"Path", L"1"), Row(L"cased-other", L"Staying", L"path", L"2", 0, L"SOFTWARE\\co"),
        Row(L"rooted", L"Going", L"r", L"1"), Row(L"other-root", L"Staying", L"r", L"1"),
    };
    rows[9].condition = L"FALSE";
    rows.back().root = 1;
    Resolve(rows);
    log.lines.clear();
    int locates = 0;
    const LocatedState located = [&](const std::wstring& component) {
        ++locates;
        return component == L"Elsewhere" ? 3 : 2;
    };
    std::vector<std::wstring> ids;
    for (const RegistryExRow& row : PlanRegistryUninstall(rows, states, located, log)) ids.push_back(row.id);
    EXPECT_EQ(ids, (std::vector<std::wstring>{L"own", L"leaving", L"win64", L"deleter", L"condfalse", L"keyrow",
                                              L"previous", L"fileabsent", L"rooted"}));
    EXPECT_EQ(locates, 2);  // only for an absent component without an action
    const std::vector<std::wstring> expected = {
        L"Skip uninstallation of registry row 'shared'. Other installed component write the same registry value. "
        L"'other', 'Staying', Software\\Co, s, 2.",
        L"Skip uninstallation of registry row 'other' for null-action component 'Staying'.",
        L"Skip uninstallation of registry row 'empty'. The registry value is empty.",
        L"Skip uninstallation of registry row 'ondelete'. The registry marked to delete on install.",
        L"Skip uninstallation of registry row 'unknown' for unknown state of component 'Unknown'.",
        L"Skip uninstallation of registry row 'idle' for null-action component 'Idle'.",
        L"Found previous version of component 'Elsewhere'.",
        L"Skip uninstallation of registry row 'coming'. Component is not marked to uninstall.",
        L"Need to uninstall registry row 'own', component 'Going'. Software\\Co, o, 1.",
    };
    for (const std::wstring& line : expected) {
        EXPECT_NE(std::find(log.lines.begin(), log.lines.end(), line), log.lines.end()) << std::string(line.begin(), line.end());
    }
}

// The registry as a map from key to values, for the rollback capture.
class FakeRegistry : public RegistryReader {
public:
    int ExistingDepth(int, const std::wstring& key, std::uint32_t) override {
        int depth = 0;
        for (int d = 1; d <= KeyDepth(key); ++d) {
            std::wstring prefix = key;
            for (int cut = KeyDepth(key); cut > d; --cut) prefix.resize(prefix.rfind(L'\\'));
            if (!keys.count(prefix)) break;
            depth = d;
        }
        return depth;
    }
    std::optional<RegistryValue> Value(int, const std::wstring& key, const std::wstring& name, std::uint32_t) override {
        const auto it = keys.find(key);
        if (it == keys.end()) return std::nullopt;
        for (const RegistryValue& v : it->second) {
            if (v.name == name) return v;
        }
        return std::nullopt;
    }
    std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> Tree(int, const std::wstring& key,
                                                                          std::uint32_t) override {
        std::vector<std::pair<std::wstring, std::vector<RegistryValue>>> tree;
        for (const auto& [path, values] : keys) {
            if (path == key || path.starts_with(key + L"\\")) tree.emplace_back(path, values);
        }
        return tree;
    }
    std::map<std::wstring, std::vector<RegistryValue>> keys;
};

TEST(RegistryExRollback, CapturePutsBackExactlyWhatWasThere) {
    FakeRegistry registry;
    registry.keys[L"A"] = {};
    registry.keys[L"A\\B"] = {{L"old", kRegExpandSz, {0x41, 0, 0, 0}}};
    registry.keys[L"A\\B\\C"] = {};
    RecordingLogSink log;
    auto capture = [&](RegistryExRow row) { return CaptureRollback(row, registry, log); };
    auto one = [](std::wstring key, std::wstring name, std::wstring value, int attributes, int keep) {
        RegistryExRow row = Row(L"r", L"C", std::move(name), std::move(value), attributes, std::move(key));
        row.keep = keep;
        return row;
    };

    // A write over a value: the old type and bytes; beside nothing: a removal that keeps the key.
    EXPECT_EQ(capture(Row(L"r", L"C", L"old", L"new", 0, L"A\\B")),
              std::vector<RegistryExRow>{one(L"A\\B", L"old", L"#t2:41000000", 0, 0)});
    EXPECT_EQ(capture(Row(L"r", L"C", L"none", L"new", 2, L"A\\B")),
              std::vector<RegistryExRow>{one(L"A\\B", L"none", L"-", 3, 2)});
    // Into a key that is not there: removal, clean-up stopping at the key that was.
    EXPECT_EQ(capture(Row(L"r", L"C", L"v", L"new", 0, L"A\\X\\Y")),
              std::vector<RegistryExRow>{one(L"A\\X\\Y", L"v", L"-", 1, 1)});
    EXPECT_EQ(capture(Row(L"r", L"C", L"", L"", 8, L"A\\X\\Y")),
              std::vector<RegistryExRow>{one(L"A\\X\\Y", L"", L"", 9, 1)});
    EXPECT_EQ(capture(Row(L"r", L"C", L"", L"", 8, L"A\\B")), std::vector<RegistryExRow>{});
    // A removal: the key comes back (its clean-up may take it), with the value when there was one.
    EXPECT_EQ(capture(Row(L"r", L"C", L"old", L"x", 1, L"A\\B")),
              (std::vector<RegistryExRow>{one(L"A\\B", L"", L"", 8, 0), one(L"A\\B", L"old", L"#t2:41000000", 0, 0)}));
    EXPECT_EQ(capture(Row(L"r", L"C", L"gone", L"x", 1, L"A\\B")),
              std::vector<RegistryExRow>{one(L"A\\B", L"", L"", 8, 0)});
    EXPECT_EQ(capture(Row(L"r", L"C", L"v", L"x", 1, L"Q")), std::vector<RegistryExRow>{});
    // A whole key: every key below it and every value.
    EXPECT_EQ(capture(Row(L"r", L"C", L"*", L"", 1, L"A\\B")),
              (std::vector<RegistryExRow>{one(L"A\\B", L"old", L"#t2:41000000", 0, 0), one(L"A\\B\\C", L"", L"", 8, 0)}));
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{L"The registry value 'none' is not exist.",
                                                    L"The registry key 'A\\X\\Y' is not exist.",
                                                    L"The registry key 'A\\X\\Y' is not exist.",
                                                    L"The registry value 'gone' is not exist.",
                                                    L"The registry key 'Q' is not exist."}));

    // The rows travel whole through the action data.
    std::vector<RegistryExRow> rows = {one(L"A|B^C", L"n;m", L"v=w>x*y", 25, 3), Row(L"id", L"C", L"", L"")};
    rows[1].root = 0;
    rows[1].condition = L"A=\"1\"";
    EXPECT_EQ(DecodeRegistryRows(EncodeRegistryRows(rows)), rows);
    EXPECT_EQ(RegistryRowProblem(DecodeRegistryRows(L"rows=00000000*key>A")[0]), L"the root '-1' is not one of 0..3");
}

TEST(RegistryExFiles, TextInKeyOrderMergedWithTheLastVersion) {
    std::vector<RegistryExRow> rows = {
        Row(L"s", L"C", L"Str", L"a\"b"),
        Row(L"d", L"C", L"", L"#1", 0, L"Software\\Co\\Sub"),
        Row(L"w", L"C", L"Wide", L"#x01", 2),
        Row(L"del", L"C", L"Old", L"", 1),
        Row(L"k", L"C", L"+", L"", 0, L"Software\\Empty"),
        Row(L"drop", L"C", L"-", L"", 0, L"Software\\Drop"),
    };
    rows[0].root = 1;
    const std::wstring last =
        L"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Co]\r\n\"Kept\"=\"x\"\r\n"
        L"\"Wide\"=hex:ff,\\\r\n  ee\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Drop]\r\n\"Lost\"=\"y\"\r\n";
    EXPECT_EQ(RegFileText(rows, false, last),
              L"Windows Registry Editor Version 5.00\n"
              L"\n[HKEY_CURRENT_USER\\Software\\Co]\n\"Str\"=\"a\\\"b\"\n"
              L"\n[HKEY_LOCAL_MACHINE\\Software\\Co]\n\"Kept\"=\"x\"\n\"Old\"=-\n\"Wide\"=hex:01\n"
              L"\n[HKEY_LOCAL_MACHINE\\Software\\Co\\Sub]\n@=dword:00000001\n"
              L"\n[-HKEY_LOCAL_MACHINE\\Software\\Drop]\n"
              L"\n[HKEY_LOCAL_MACHINE\\Software\\Empty]\n");
    // On a 64-bit system the 32-bit rows go to their redirected keys (case-sensitive prefixes).
    std::vector<RegistryExRow> redirected = {Row(L"a", L"C", L"A", L"1", 0, L"SOFTWARE\\Co"),
                                             Row(L"b", L"C", L"B", L"1", 2, L"SOFTWARE\\Co")};
    EXPECT_EQ(RegFileText(redirected, true, L""),
              L"Windows Registry Editor Version 5.00\n"
              L"\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Co]\n\"B\"=\"1\"\n"
              L"\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Co]\n\"A\"=\"1\"\n");
}

}  // namespace
}  // namespace setup
