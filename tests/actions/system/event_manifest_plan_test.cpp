#include "actions/system/event_manifest_plan.h"

#include <gtest/gtest.h>

#include "runtime/exception.h"

#include "runtime/fake_component_states.h"
#include "services/process_output.h"

namespace setup {
namespace {

using Lines = std::vector<std::wstring>;

struct Fixture {
    test::FakeComponentStates states;
    RecordingLogSink log;
    std::vector<EventManifestRow> rows{
        {L"Install", L"C:\\m\\install.man"},     {L"Reinstall", L"C:\\m\\reinstall.man"},
        {L"Remove", L"C:\\m\\remove.man"},       {L"FilesOnly", L"C:\\m\\files only.man"},
        {L"Idle", L"C:\\m\\idle.man"},           {L"Unknown", L"C:\\m\\unknown.man"},
    };
    Fixture() {
        states.states[L"FilesOnly"] = {3, 1};
    }
};

TEST(EventManifestPlan, RegistrationTakesInstalledAndReinstalledComponentsInTableOrder) {
    Fixture f;
    EXPECT_EQ(SelectManifests(f.rows, ManifestOperation::Register, f.states, f.log),
              (Lines{L"C:\\m\\install.man", L"C:\\m\\reinstall.man"}));
    EXPECT_EQ(f.log.lines,
              (Lines{
                  L"Need to install event log manifest 'C:\\m\\install.man'. Component 'Install' to do 1.",
                  L"Need to install event log manifest 'C:\\m\\reinstall.man'. Component 'Reinstall' to do 3.",
                  L"Skip install event log manifest 'C:\\m\\remove.man'. Component 'Remove' is not marked to install "
                  L"or reinstall.",
                  L"Skip install event log manifest 'C:\\m\\files only.man'. Component 'FilesOnly' is not marked to "
                  L"install or reinstall.",
                  L"Skip install event log manifest 'C:\\m\\idle.man' for null-action component.",
                  L"Skip install event log manifest 'C:\\m\\unknown.man' for null-action component.",
              }));
    EXPECT_EQ(f.states.evaluations, 0);  // this table has no conditions
}

TEST(EventManifestPlan, UnregistrationTakesRemovedAndReinstalledComponentsButNotFileAbsent) {
    Fixture f;
    EXPECT_EQ(SelectManifests(f.rows, ManifestOperation::Unregister, f.states, f.log),
              (Lines{L"C:\\m\\reinstall.man", L"C:\\m\\remove.man"}));
    EXPECT_EQ(f.log.lines,
              (Lines{
                  L"Skip uninstall event log manifest 'C:\\m\\install.man'. Component 'Install' is not marked to "
                  L"uninstall or reinstall.",
                  L"Need to uninstall event log manifest 'C:\\m\\reinstall.man'. Component 'Reinstall' to do 3.",
                  L"Need to uninstall event log manifest 'C:\\m\\remove.man'. Component 'Remove' to do 2.",
                  L"Skip uninstall event log manifest 'C:\\m\\files only.man'. Component action is FileAbsent.",
                  L"Skip uninstall event log manifest 'C:\\m\\idle.man' for null-action component.",
                  L"Skip uninstall event log manifest 'C:\\m\\unknown.man' for null-action component.",
              }));
    EXPECT_EQ(f.states.evaluations, 0);
}

TEST(EventManifestPlan, CommandLinesQuoteToolAndManifestWithoutEscaping) {
    const std::wstring tool = WevtutilPath(L"C:\\windows\\system32");
    EXPECT_EQ(tool, L"C:\\windows\\system32\\wevtutil.exe");
    EXPECT_EQ(WevtutilPath(L"C:\\sys\\"), L"C:\\sys\\wevtutil.exe");
    EXPECT_EQ(WevtutilPath(L"C:/sys/"), L"C:/sys/wevtutil.exe");
    EXPECT_EQ(ManifestCommandLine(tool, ManifestOperation::Register, L"C:\\Program Files\\A\\events one.man"),
              L"\"C:\\windows\\system32\\wevtutil.exe\" im \"C:\\Program Files\\A\\events one.man\"");
    EXPECT_EQ(ManifestCommandLine(L"t", ManifestOperation::Unregister, L"C:\\m %s [x].man"),
              L"\"t\" um \"C:\\m %s [x].man\"");
    // A quote would split the command line: refused, as is a relative path.
    for (const wchar_t* bad : {L"C:\\x.man\" /rf:\"C:\\evil.dll", L"x.man"}) {
        EXPECT_THROW(ManifestCommandLine(tool, ManifestOperation::Register, bad), Exception) << bad;
    }
}

TEST(ProcessOutput, LinesCutByReadBoundariesComeOutWhole) {
    using Bytes = std::vector<std::string>;
    const std::string stream = "one\r\n\r\ntwo a\nb\rc\r\nthree\r\ntail";
    // Every way of cutting the stream into two reads gives the same lines.
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        OutputLineSplitter split;
        Bytes lines = split.Push(std::string_view(stream).substr(0, cut));
        for (auto& line : split.Push(std::string_view(stream).substr(cut))) lines.push_back(line);
        for (auto& line : split.Finish()) lines.push_back(line);
        EXPECT_EQ(lines, (Bytes{"one", "two a\nb\rc", "three", "tail"})) << cut;
    }
    OutputLineSplitter split;
    EXPECT_EQ(split.Push("\r\n\r\n"), Bytes{});
    EXPECT_EQ(split.Finish(), Bytes{});
}

}  // namespace
}  // namespace setup
