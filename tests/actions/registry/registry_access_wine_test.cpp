// The registry operations on a scratch subtree of the Wine registry.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "actions/registry/registry_access.h"
#include "actions/registry/registry_notation.h"
#include "runtime/exception.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

constexpr wchar_t kScratch[] = L"Software\\SetupUtilsTest\\RegistryAccess";

class RegistryAccessTest : public ::testing::Test {
protected:
    void SetUp() override {
        package_.Open();
        RemoveKeyTree(2, kScratch, 0);
    }
    void TearDown() override { RemoveKeyTree(2, kScratch, 0); }
    std::wstring Key(const std::wstring& below) { return std::wstring(kScratch) + L"\\" + below; }
    template <class F>
    std::wstring Logged(F work) {
        return test::LoggedIn(package_.Session(), work);
    }
    test::TestPackage package_;
};

TEST_F(RegistryAccessTest, EveryTypeIsWrittenAndReadBackAndEnumerated) {
    const std::vector<std::wstring> notations = {L"text", L"#%%TEMP%", L"#42", L"#x0102", L"a[~]b",
                                                 L"#t11:0100000000000000"};
    std::vector<RegistryValue> written;
    for (std::size_t i = 0; i < notations.size(); ++i) {
        written.push_back(ParseValueNotation(L"v" + std::to_wstring(i), notations[i]));
        Logged([&] { WriteValue(2, Key(L"Types"), written.back(), 0); });
        EXPECT_EQ(ReadValue(2, Key(L"Types"), written.back().name, 0), written.back());
    }
    EXPECT_EQ(GetValues(2, Key(L"Types"), 0), written);
    CreateKey(2, Key(L"Types\\Sub\\Deep"), 0);
    EXPECT_EQ(GetSubkeys(2, Key(L"Types"), 0), std::vector<std::wstring>{L"Sub"});
    EXPECT_EQ(CollectKeyTree(2, Key(L"Types"), 0),
              (std::vector<std::wstring>{Key(L"Types"), Key(L"Types\\Sub"), Key(L"Types\\Sub\\Deep")}));
    EXPECT_EQ(ExistingDepth(2, Key(L"Types\\Sub\\Deep"), 0), 6);
    EXPECT_EQ(ExistingDepth(2, Key(L"Types\\None\\Deep"), 0), 4);

    // Missing keys are results, not exceptions; enumerating one is a failure with its text.
    EXPECT_EQ(ReadValue(2, Key(L"None"), L"v", 0), std::nullopt);
    EXPECT_EQ(CollectKeyTree(2, Key(L"None"), 0), std::vector<std::wstring>{});
    try {
        GetValues(2, Key(L"None"), 0);
        ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(e.Code(), static_cast<HResult>(0x80070002));
        EXPECT_EQ(e.Message(), L"Failed to get registry values. Can't open registry key " + Key(L"None"));
    }
}

TEST_F(RegistryAccessTest, RemovalsCleanUpEmptyKeysUpToTheFirstOneInUse) {
    CreateKey(2, Key(L"A\\Sibling"), 0);
    WriteValue(2, Key(L"A\\B\\C"), ParseValueNotation(L"v", L"x"), 0);
    const std::wstring log = Logged([&] {
        DeleteValue(2, Key(L"A\\B\\C"), L"v", 0);
        RemoveEmptyKeys(2, Key(L"A\\B\\C"), 0);
        DeleteValue(2, Key(L"Nowhere"), L"v", 0);
    });
    EXPECT_NE(log.find(L"Removed empty registry key '" + Key(L"A\\B\\C") + L"'."), std::wstring::npos) << log;
    EXPECT_NE(log.find(L"Removed empty registry key '" + Key(L"A\\B") + L"'."), std::wstring::npos) << log;
    EXPECT_NE(log.find(L"Failed to open registry key '" + Key(L"Nowhere") + L"'. Error 0x80070002."),
              std::wstring::npos) << log;
    EXPECT_EQ(CollectKeyTree(2, Key(L"A"), 0), (std::vector<std::wstring>{Key(L"A"), Key(L"A\\Sibling")}));

    // `keep` stops the walk: the key that was there before stays, even empty.
    CreateKey(2, Key(L"K\\L\\M"), 0);
    RemoveEmptyKeys(2, Key(L"K\\L\\M"), 0, 4);
    EXPECT_EQ(CollectKeyTree(2, Key(L"K"), 0), std::vector<std::wstring>{Key(L"K")});

    // A whole tree, values and all.
    WriteValue(2, Key(L"T\\U\\V"), ParseValueNotation(L"", L"#1"), 0);
    WriteValue(2, Key(L"T"), ParseValueNotation(L"w", L"x"), 0);
    EXPECT_EQ(RemoveKeyTree(2, Key(L"T"), 0), ERROR_SUCCESS);
    EXPECT_EQ(ExistingDepth(2, Key(L"T"), 0), 3);
    EXPECT_EQ(RemoveKeyTree(2, Key(L"T"), 0), ERROR_SUCCESS);  // gone already: no failure
}

TEST_F(RegistryAccessTest, RunsOfRowsThroughOneOpenKeyActAsSingleCalls) {
    // The snapshot reads what a value holds, however long, and what is missing.
    const RegistryValue big = ParseValueNotation(L"big", std::wstring(700, L'x'));
    WriteValue(2, Key(L"R"), big, 0);
    RegistrySnapshotReader snapshot;
    EXPECT_EQ(snapshot.Value(2, Key(L"R"), L"big", 0), big);
    EXPECT_EQ(snapshot.Value(2, Key(L"R"), L"none", 0), std::nullopt);
    EXPECT_EQ(snapshot.Value(2, Key(L"None"), L"v", 0), std::nullopt);
    EXPECT_EQ(snapshot.ExistingDepth(2, Key(L"R\\S\\T"), 0), 4);
    EXPECT_EQ(snapshot.ExistingDepth(2, Key(L"R"), 0), 4);

    RegistryValueWriter writer;
    for (const wchar_t* name : {L"a", L"b"}) writer.Write(2, Key(L"W\\X"), ParseValueNotation(name, name), 0);
    writer.Write(2, Key(L"W"), ParseValueNotation(L"c", L"#1"), 0);
    EXPECT_EQ(GetValues(2, Key(L"W\\X"), 0).size(), 2u);

    // The key goes with its last value, and its empty parent down to `keep`; a
    // later value of the key finds it gone, as the single calls did.
    RegistryValueRemover remover;
    const std::wstring log = Logged([&] {
        remover.Remove(2, Key(L"W\\X"), L"a", 0, 0);
        EXPECT_EQ(ExistingDepth(2, Key(L"W\\X"), 0), 5);
        remover.Remove(2, Key(L"W\\X"), L"b", 0, 0);
        remover.Remove(2, Key(L"W\\X"), L"b", 0, 0);
        remover.Remove(2, Key(L"W"), L"c", 0, 4);
    });
    EXPECT_NE(log.find(L"Removed empty registry key '" + Key(L"W\\X") + L"'."), std::wstring::npos) << log;
    EXPECT_NE(log.find(L"Failed to open registry key '" + Key(L"W\\X") + L"'. Error 0x80070002."),
              std::wstring::npos) << log;
    EXPECT_EQ(CollectKeyTree(2, Key(L"W"), 0), std::vector<std::wstring>{Key(L"W")});
    EXPECT_EQ(GetValues(2, Key(L"W"), 0), std::vector<RegistryValue>{});
}

}  // namespace
}  // namespace setup
