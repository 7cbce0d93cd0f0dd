#include <gtest/gtest.h>

#include "runtime/action_data.h"
#include "runtime/action_frame.h"
#include "runtime/program_log.h"
#include "runtime/session.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

using test::MessageCapture;
using test::TestPackage;

constexpr wchar_t kGuid[] = L"{7A3C2E10-4B5D-4C6E-8F70-9A1B2C3D4E5F}";

ComponentTask TaskAfterSetting(TestPackage& package, INSTALLSTATE requested) {
    EXPECT_EQ(::MsiSetComponentStateW(package.Session(), L"Core", requested), static_cast<UINT>(ERROR_SUCCESS));
    return Session(package.Session()).GetComponentTask(L"Core");
}

TEST(ComponentTaskWine, FollowsTheInstallersRealComponentStates) {
    TestPackage package;
    package.AddComponent(L"Core", kGuid);
    package.AddExecuteSequence();
    package.Open();
    package.Cost();
    EXPECT_EQ(TaskAfterSetting(package, INSTALLSTATE_LOCAL), ComponentTask::Install);
    EXPECT_EQ(TaskAfterSetting(package, INSTALLSTATE_SOURCE), ComponentTask::Install);
    EXPECT_EQ(TaskAfterSetting(package, INSTALLSTATE_ABSENT), ComponentTask::None);  // nothing to remove
    EXPECT_EQ(Session(package.Session()).GetComponentTask(L"NoSuchComponent"), ComponentTask::None);

    // Once the product is on the machine the installed state is local.
    ASSERT_EQ(package.Install(), static_cast<UINT>(ERROR_SUCCESS));
    package.Open();
    package.Cost();
    ComponentState state;
    Session(package.Session()).GetComponentState(L"Core", state);
    EXPECT_EQ(state.installed, INSTALLSTATE_LOCAL);
    EXPECT_EQ(TaskAfterSetting(package, INSTALLSTATE_LOCAL), ComponentTask::Reinstall);
    EXPECT_EQ(TaskAfterSetting(package, INSTALLSTATE_ABSENT), ComponentTask::Uninstall);

    // The decision over the live session: an uninstall, logged with the feature's text.
    RecordingLogSink log;
    SessionComponentStates states{Session(package.Session())};
    const Decision d = DecideRow(states, kStandardUninstall, L"Core", L"", [](const Decision& decision) {
        return StandardUninstallText(decision, L"Cab1");
    }, log);
    EXPECT_TRUE(d.Chosen());
    EXPECT_EQ(log.lines, std::vector<std::wstring>{L"Need to uninstall 'Cab1' cab. Component to do 2."});
    EXPECT_EQ(package.Uninstall(), static_cast<UINT>(ERROR_SUCCESS));
}

TEST(ActionDataWine, AScheduledPayloadReachesTheDeferredSideUnchanged) {
    TestPackage package;
    package.Sql(L"CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, "
                L"`Source` CHAR(72), `Target` CHAR(255) PRIMARY KEY `Action`)");
    package.Sql(L"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) "
                L"VALUES ('CarryWork', 3073, 'SetupUtils', 'CarryWork')");
    const MSIHANDLE session = package.Open();

    const std::wstring nasty = L"C:\\Program Files\\a|b=c;d*e^f>g [ProductName] {x} %s ||";
    std::vector<PropertyMap> items(3);
    for (std::size_t i = 0; i < items.size(); ++i) {
        items[i].Set(L"path", nasty + std::to_wstring(i));
        items[i].Set(L"content", std::wstring(5000, L'x') + nasty);
        items[i].Set(L"atr", static_cast<int>(i));
    }
    PropertyMap top;
    top.Set(L"files", EncodeRecordList(items));
    top.Set(L"pfr", EncodeTextList({nasty}));

    EXPECT_EQ(RunAction(session, "CarryImmediate", ActionError::None,
                        [&](Session& s) { s.ScheduleDeferred(L"CarryWork", EncodeActionData(top)); }),
              0u);
    // The installer hands the property named after the action to the deferred
    // action as CustomActionData; in-process we do that step ourselves.
    Session immediate(session);
    immediate.SetProperty(L"CustomActionData", immediate.GetProperty(L"CarryWork"));

    std::vector<PropertyMap> received;
    std::vector<std::wstring> pfr;
    EXPECT_EQ(RunAction(session, "CarryWork", ActionError::None,
                        [&](Session& s) {
                            const PropertyMap data = s.ReadActionData();
                            received = DecodeRecordList(data.Get(L"files"));
                            pfr = DecodeTextList(data.Get(L"pfr"));
                        }),
              0u);
    EXPECT_EQ(received, items);
    EXPECT_EQ(pfr, std::vector<std::wstring>{nasty});
}

}  // namespace
}  // namespace setup
