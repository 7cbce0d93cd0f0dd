#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/installer_calls.h"
#include "runtime/session.h"
#include "wine_support/test_package.h"

namespace setup {
namespace {

// Batched formatting must give, text for text, what formatting each text alone
// gives: the real installer decides, including for texts that cannot travel
// together (an open bracket or brace, the separator itself).
TEST(FormatBatch, GivesWhatFormattingEachTextAloneGives) {
    test::TestPackage package;
    package.Open();
    Session session(package.Session());
    session.SetProperty(L"NAME", L"Ann");
    session.SetProperty(L"EMPTY", L"");
    session.SetProperty(L"INDIRECT", L"NAME");
    const std::vector<std::wstring> texts = {
        L"[NAME]",      L"plain",         L"a[\\[]b[\\]]c", L"{x[EMPTY]y}",  L"{x[NAME]y}", L"[[INDIRECT]]",
        L"[Unclosed",   L"closed]",       L"{open",         L"a\x1F[NAME]", L"",           L"[~]",
        L"[1]",         L"[%PATH]x",      L"}[NAME]{",      L"[NAME]]",     L"[NAME",      L"]",
    };
    std::vector<std::wstring> alone;
    for (const std::wstring& text : texts) alone.push_back(session.FormatText(text));
    EXPECT_EQ(session.FormatTexts(texts), alone);
    // Many texts: more than one batch.
    std::vector<std::wstring> many(3000, L"C:\\[NAME]\\some\\longer\\path\\file.txt");
    many[1500] = L"[NAME";
    ResetInstallerCallCount();
    const std::vector<std::wstring> formatted = session.FormatTexts(many);
    EXPECT_LT(InstallerCallCount(), 20u);  // a call per batch of some thousands of characters, and the odd one
    ASSERT_EQ(formatted.size(), many.size());
    EXPECT_EQ(formatted[0], L"C:\\Ann\\some\\longer\\path\\file.txt");
    EXPECT_EQ(formatted[2999], L"C:\\Ann\\some\\longer\\path\\file.txt");
    EXPECT_EQ(formatted[1500], session.FormatText(L"[NAME"));
}

}  // namespace
}  // namespace setup
