#include "runtime/format_batch.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

TEST(FormatBatch, OnlyTextsThatCloseWhatTheyOpenTravelTogether) {
    for (const wchar_t* together : {L"", L"plain", L"[A]", L"[[A]]", L"{x[A]y}", L"a[\\[]b", L"[\\]]", L"x]y",
                                    L"}", L"[A]]", L"{{[A]}}"}) {
        EXPECT_TRUE(FormatsInBatch(together)) << together;
    }
    for (const wchar_t* alone : {L"[A", L"{x", L"[[A]", L"[\\[", L"a\x1F" L"b", L"{[A}"}) {
        EXPECT_FALSE(FormatsInBatch(alone)) << alone;
    }
}

TEST(FormatBatch, SplitsBackIntoExactlyAsManyPieces) {
    EXPECT_EQ(SplitFormattedBatch(L"a\x1F\x1F" L"c", 3), (std::vector<std::wstring>{L"a", L"", L"c"}));
    EXPECT_EQ(SplitFormattedBatch(L"", 1), (std::vector<std::wstring>{L""}));
    EXPECT_TRUE(SplitFormattedBatch(L"a\x1F" L"b", 3).empty());
    EXPECT_TRUE(SplitFormattedBatch(L"a\x1F" L"b\x1F" L"c", 2).empty());
}

}  // namespace
}  // namespace setup
