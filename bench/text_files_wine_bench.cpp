// Scale of the text-file actions, in-process under Wine: generated packages
// with 1,000 and 10,000 TextFile rows over 100 target files. Prints the time
// per row of the immediate and the deferred action and the size of the custom
// action data against the content it carries. Run by scripts/bench.
#include <chrono>
#include <cstdio>
#include <string>

#include "actions/files/text_file_actions.h"
#include "actions/files/text_file_plan.h"
#include "runtime/action_frame.h"
#include "wine_support/test_package.h"

using namespace setup;
using Clock = std::chrono::steady_clock;

namespace {

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// The component Main of the feature Main, whose state the action reads.
void AddMainComponent(test::TestPackage& package) {
    package.Sql(L"CREATE TABLE `Component` (`Component` CHAR(72) NOT NULL, `ComponentId` CHAR(38), "
                L"`Directory_` CHAR(72) NOT NULL, `Attributes` SHORT NOT NULL, `Condition` CHAR(255), "
                L"`KeyPath` CHAR(72) PRIMARY KEY `Component`)");
    package.Sql(L"CREATE TABLE `Feature` (`Feature` CHAR(38) NOT NULL, `Feature_Parent` CHAR(38), `Title` CHAR(64), "
                L"`Description` CHAR(255), `Display` SHORT, `Level` SHORT NOT NULL, `Directory_` CHAR(72), "
                L"`Attributes` SHORT NOT NULL PRIMARY KEY `Feature`)");
    package.Sql(L"CREATE TABLE `FeatureComponents` (`Feature_` CHAR(38) NOT NULL, `Component_` CHAR(72) NOT NULL "
                L"PRIMARY KEY `Feature_`, `Component_`)");
    package.Sql(L"INSERT INTO `Feature` (`Feature`, `Level`, `Attributes`) VALUES ('Main', 1, 0)");
    package.Sql(L"INSERT INTO `Component` (`Component`, `ComponentId`, `Directory_`, `Attributes`) VALUES "
                L"('Main', '{5E1D2C3B-4A59-4687-9A0B-C1D2E3F40516}', 'TARGETDIR', 0)");
    package.Sql(L"INSERT INTO `FeatureComponents` (`Feature_`, `Component_`) VALUES ('Main', 'Main')");
}

void Run(int rows, int files) {
    test::TestPackage package;
    test::TempDir dir;
    AddMainComponent(package);
    package.Sql(L"CREATE TABLE `TextFile` (`TextFile` CHAR(72) NOT NULL, `File` CHAR(255) NOT NULL, "
                L"`Text` LONGCHAR, `Component_` CHAR(72) NOT NULL, `Condition` CHAR(255) PRIMARY KEY `TextFile`)");
    package.Sql(L"CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, "
                L"`Source` CHAR(72), `Target` CHAR(255) PRIMARY KEY `Action`)");
    for (const wchar_t* action : {L"InstallTextFilesRollback", L"InstallTextFilesDeferred", L"InstallTextFilesCommit"}) {
        package.Sql(L"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('" +
                    std::wstring(action) + L"', 3073, 'SetupUtils', '" + action + L"')");
    }
    for (int i = 0; i < rows; ++i) {
        package.Sql(L"INSERT INTO `TextFile` (`TextFile`, `File`, `Text`, `Component_`) VALUES ('L" +
                    std::to_wstring(i) + L"', '" + dir.File(L"file" + std::to_wstring(i % files) + L".txt") +
                    L"', 'line " + std::to_wstring(i) + L": [ProductName] writes this generated setting', 'Main')");
    }
    const MSIHANDLE session = package.Open();
    for (const wchar_t* action : {L"CostInitialize", L"FileCost", L"CostFinalize"}) ::MsiDoActionW(session, action);
    ::MsiSetComponentStateW(session, L"Main", INSTALLSTATE_LOCAL);

    test::MessageCapture quiet;  // the installer log is not what is measured here
    const auto t0 = Clock::now();
    const UINT immediate = RunAction(session, "InstallTextFiles", ActionError::TextFiles, &InstallTextFiles);
    const auto t1 = Clock::now();
    Session s(session);
    const std::wstring data = s.GetProperty(L"InstallTextFilesDeferred");
    s.SetProperty(L"CustomActionData", data);
    const auto t2 = Clock::now();
    const UINT deferred = RunAction(session, "InstallTextFilesDeferred", ActionError::TextFiles, &InstallTextFilesDeferred);
    const auto t3 = Clock::now();

    std::size_t content = 0;
    for (const TextFileItem& item : DecodeTextFileActionData(data).items) content += item.content.size();
    std::printf("%6d rows, %3d files: immediate %8.2f ms (%6.1f us/row), deferred %8.2f ms (%6.1f us/row), "
                "results %u/%u\n",
                rows, files, Ms(t1 - t0), 1000.0 * Ms(t1 - t0) / rows, Ms(t3 - t2), 1000.0 * Ms(t3 - t2) / rows,
                immediate, deferred);
    std::printf("%6s action data %zu chars for %zu chars of content: overhead %.1f%% (%.0f chars per file)\n", "",
                data.size(), content, 100.0 * (static_cast<double>(data.size()) - content) / content,
                static_cast<double>(data.size() - content) / files);
}

}  // namespace

int main() {
    Run(1000, 100);
    Run(10000, 100);
    return 0;
}
