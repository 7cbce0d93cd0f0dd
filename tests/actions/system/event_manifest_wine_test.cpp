#include <gtest/gtest.h>

#include <string>

#include "actions/system/event_manifest_actions.h"
#include "runtime/action_frame.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

// Both immediate actions succeed without the table and schedule nothing.
TEST(EventManifest, MissingTableIsNotAnError) {
    test::TestPackage package;
    const MSIHANDLE session = package.Open();
    for (const auto& [name, action] : {std::pair{"InstallEventManifest", &InstallEventManifest},
                                       std::pair{"UninstallEventManifest", &UninstallEventManifest}}) {
        test::MessageCapture capture;
        EXPECT_EQ(RunAction(session, name, ActionError::None, action), 0u) << name;
        EXPECT_TRUE(capture.HasInfo(L"There is no 'EventManifest' table.")) << capture.AllInfo();
        EXPECT_FALSE(capture.HasInfo(L"Wevtutil.exe is not exist.")) << capture.AllInfo();
    }
}

}  // namespace
}  // namespace setup
