#include "actions/system/perfmon_plan.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

TEST(PerfmonPlan, IniChecksNameWhatWouldFailTheLoad) {
    const wchar_t* ini = L"[info]\r\nDriverName = MySvc\r\nsymbolfile=c.h\r\n[languages]\r\n009=English\r\n";
    EXPECT_EQ(PerfIniSymbolFile(ini), L"c.h");
    EXPECT_EQ(PerfIniProblem(ini, L"mysvc", L"#define OBJ 0\r\n#define C1 2\r\n// 3 is no define\r\n"), L"");
    EXPECT_EQ(PerfIniProblem(ini, L"Other", L""), L"its drivername 'MySvc' is not the row's name 'Other'");
    EXPECT_EQ(PerfIniProblem(ini, L"MySvc", L"#define OBJ 0\n#define C1 3\n"), L"the offset of C1 is 3, not even");
    EXPECT_EQ(PerfIniProblem(L"[info]\r\ndrivername=MySvc\r\n", L"MySvc", L""),
              L"its [languages] section names no language");
    EXPECT_EQ(PerfIniProblem(L"[languages]\r\n009=English\r\n", L"MySvc", L""),
              L"its [info] section names no drivername");
}

TEST(PerfmonPlan, CommandsValuesAndCapturesAreExact) {
    EXPECT_EQ(LoadCommand(L"C:\\p\\c.ini"), L"lodctr \"C:\\p\\c.ini\"");
    EXPECT_EQ(UnloadCommand(L"MySvc"), L"unlodctr MySvc");
    EXPECT_EQ(ManifestLoadCommand(L"C:\\w\\lodctr.exe", L"C:\\p\\c.man", L"C:\\p\\"),
              L"\"C:\\w\\lodctr.exe\" /m:\"C:\\p\\c.man\" \"C:\\p\"");  // no backslash before the closing quote
    EXPECT_EQ(ManifestLoadCommand(L"l.exe", L"m", L""), L"\"l.exe\" /m:\"m\"");
    EXPECT_EQ(ManifestProviderGuid(L"<provider providerName='x' providerGuid='{AB}'/>"), L"{AB}");

    const std::vector<RegistryValue> values = LibraryValues(L"C:\\p\\perf.dll;;Gather");
    ASSERT_EQ(values.size(), 4u);
    EXPECT_EQ(values[0].name, L"Library");
    EXPECT_EQ(values[2].data.size(), (std::wstring(L"Gather").size() + 1) * 2);
    EXPECT_EQ(values[1].data.size(), (std::wstring(L"OpenPerformanceData").size() + 1) * 2);

    const KeyCapture capture{true, {{L"", {{L"First Counter", 4, {1, 2, 3, 4}}, {L"a|b", 1, {}}}}, {L"\\Sub", {}}}};
    EXPECT_EQ(DecodeKeyCapture(EncodeKeyCapture(capture)), capture);
    const PerfmonActionData data{true, {{L"R", L"MySvc", L"c.ini", L"", L"", 4, L"K", capture}}};
    const PerfmonActionData back = DecodePerfmonActionData(EncodePerfmonActionData(data));
    EXPECT_TRUE(back.rollback);
    EXPECT_EQ(back.items, data.items);
    EXPECT_NE(PerfmonRowProblem({L"R", L"C", L"N", L"f", L"lib", L"", perfmon::Manifest, L""}), L"");
}

}  // namespace
}  // namespace setup
