#include "actions/system/event_manifest_plan.h"

#include <gtest/gtest.h>

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
        states.states[L"Install"] = {2, 3};
        states.states[L"Reinstall"] = {3, 3};
        states.states[L"Remove"] = {3, 2};
        states.states[L"FilesOnly"] = {3, 1};
        states.states[L"Idle"] = {3, -1};
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
    EXPECT_EQ(ManifestCommandLine(L"t", ManifestOperation::Unregister, L"a\"b %s [x]"), L"\"t\" um \"a\"b %s [x]\"");
}

TEST(ProcessOutput, SplitsAtCrLfAndDropsEmptyPieces) {
    EXPECT_EQ(SplitOutputLines(L""), Lines{});
    EXPECT_EQ(SplitOutputLines(L"\r\n\r\n"), Lines{});
    EXPECT_EQ(SplitOutputLines(L"one\r\n\r\ntwo\r\nthr"), (Lines{L"one", L"two", L"thr"}));
    // Only the pair separates: a lone CR or LF stays in its piece, and a pair
    // cut by a read boundary leaves its halves at the ends of the pieces.
    EXPECT_EQ(SplitOutputLines(L"a\nb\rc\r"), (Lines{L"a\nb\rc\r"}));
    EXPECT_EQ(SplitOutputLines(L"\nnext\r\n"), (Lines{L"\nnext"}));
}

}  // namespace
}  // namespace setup
