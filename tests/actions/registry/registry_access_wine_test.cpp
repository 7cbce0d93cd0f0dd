#include <gtest/gtest.h>

#include "actions/registry/registry_access.h"
#include "services/services_wine_support.h"

namespace setup {
namespace {

class RegistryAccessTest : public test::ServicesTest {};

// Rollback's remover finds nothing to take back where the step it undoes never
// ran: no alarm about a key that was never written. The deferred remover keeps
// the installer's own line.
TEST_F(RegistryAccessTest, RollbackSaysNothingOfKeysNeverWritten) {
    const wchar_t* key = L"Software\\SetupUtilsTest\\NeverWritten";
    const std::wstring quiet = Logged([&] {
        RegistryValueRemover(true).Remove(2, key, L"Value", 0, 0);
        RemoveEmptyKeys(2, key, 0, 0, true);
    });
    EXPECT_EQ(quiet.find(L"Failed"), std::wstring::npos) << quiet;
    const std::wstring loud = Logged([&] { RegistryValueRemover().Remove(2, key, L"Value", 0, 0); });
    EXPECT_NE(loud.find(L"Failed to open registry key 'Software\\SetupUtilsTest\\NeverWritten'. Error 0x80070002."),
              std::wstring::npos)
        << loud;
}

}  // namespace
}  // namespace setup
