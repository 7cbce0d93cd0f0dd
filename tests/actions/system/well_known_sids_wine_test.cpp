#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "actions/system/well_known_sids.h"
#include "runtime/exception.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

using test::MessageCapture;
using test::TestPackage;

// What the platform itself reports for a well-known SID type.
std::wstring PlatformName(int type) {
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(sid);
    if (!::CreateWellKnownSid(static_cast<WELL_KNOWN_SID_TYPE>(type), nullptr, sid, &size)) return L"<no sid>";
    wchar_t name[256];
    wchar_t domain[256];
    DWORD nameLength = 256;
    DWORD domainLength = 256;
    SID_NAME_USE use;
    if (!::LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, &use)) return L"<no name>";
    return name;
}

TEST(WellKnownSids, TheExportSetsTheSevenPropertiesInOrder) {
    TestPackage package;
    const MSIHANDLE session = package.Open();
    HMODULE dll = test::LoadUtilsDll();
    ASSERT_NE(dll, nullptr);
    using Action = UINT(__stdcall*)(MSIHANDLE);
    auto action = reinterpret_cast<Action>(reinterpret_cast<void*>(::GetProcAddress(dll, "GetWellKnownSids")));
    ASSERT_NE(action, nullptr);

    MessageCapture capture;
    EXPECT_EQ(action(session), 0u);

    const std::vector<std::pair<std::wstring, int>> expected = {
        {L"ACCOUNT_LOCALSYSTEM", 22}, {L"ACCOUNT_LOCALSERVICE", 23}, {L"ACCOUNT_NETWORKSERVICE", 24},
        {L"ACCOUNT_CREATOROWNER", 3}, {L"ACCOUNT_ADMINISTRATORS", 26}, {L"ACCOUNT_USERS", 27},
        {L"ACCOUNT_GUESTS", 28}};
    std::vector<std::wstring> sidLines;
    for (const auto& line : capture.Info()) {
        const auto at = line.find(L"Well known sid is '");
        if (at != std::wstring::npos) sidLines.push_back(line.substr(at));
    }
    ASSERT_EQ(sidLines.size(), expected.size()) << capture.AllInfo();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const std::wstring name = PlatformName(expected[i].second);
        wchar_t value[256] = {};
        DWORD size = 256;
        ::MsiGetPropertyW(session, expected[i].first.c_str(), value, &size);
        EXPECT_EQ(std::wstring(value), name) << expected[i].first;
        EXPECT_EQ(std::wstring(value).find(L'\\'), std::wstring::npos);  // no domain part
        EXPECT_EQ(sidLines[i],
                  L"Well known sid is '" + name + L"' for type '" + std::to_wstring(expected[i].second) + L"'.");
    }
    EXPECT_TRUE(capture.HasInfo(L"GetWellKnownSids initialized."));
    EXPECT_TRUE(capture.HasInfo(L"GetWellKnownSids: finished. Return value 0."));
    ::FreeLibrary(dll);
}

TEST(WellKnownSids, AnInvalidSidTypeFailsWithTheCreateText) {
    try {
        GetWellKnownAccountName(9999);
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(e.Message(), L"Failed to create SID.");
        EXPECT_LT(e.Code(), 0);
    }
}

}  // namespace
}  // namespace setup
