#include <gtest/gtest.h>

#include <string>

#include "runtime/exception.h"
#include "runtime/hresult.h"
#include "runtime/unique_handle.h"
#include "services/security_descriptor.h"
#include "services/services_wine_support.h"

namespace setup {
namespace {

using test::Thrown;

// Wine keeps a key's descriptor in its server (files keep none), so keys show
// what the service writes and reads back.
TEST(SecurityDescriptor, AKeyGetsExactlyTheDescriptorWrittenAndTheOldOneBack) {
    const std::wstring path = L"Software\\SetupUtilsTest\\SecurityDescriptor";
    RegistryKey key;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY,
                                nullptr, key.Put(), nullptr),
              ERROR_SUCCESS);
    const SecuredObject object{SecuredKind::RegistryKey, path, 2, KEY_WOW64_64KEY};
    const std::vector<unsigned char> before = ReadSecurityDescriptor(object, false);

    const std::wstring wanted = L"O:BAG:SYD:P(A;CI;KA;;;SY)(A;CI;KR;;;BU)";
    WriteSecurityDescriptor(object, SddlToDescriptor(wanted));
    EXPECT_EQ(DescriptorToSddl(ReadSecurityDescriptor(object, false)), wanted);

    WriteSecurityDescriptor(object, before);
    EXPECT_EQ(ReadSecurityDescriptor(object, false), before);  // byte for byte
    ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), KEY_WOW64_64KEY, 0);

    for (const std::wstring sddl : {L"D:(A;;GA;;;NoSuchAlias)", L"not sddl"}) {
        const Exception e = Thrown([&] { SddlToDescriptor(sddl); });
        EXPECT_EQ(e.Message(), L"The security descriptor '" + sddl + L"' does not parse.");
        EXPECT_NE(e.Code(), 0);
    }
    EXPECT_EQ(Thrown([&] { WriteSecurityDescriptor(object, {1, 2, 3}); }).Code(), kInvalidArgument);
    EXPECT_EQ(CurrentAccountSid().rfind(L"S-1-5-", 0), 0u) << CurrentAccountSid();
}

}  // namespace
}  // namespace setup
