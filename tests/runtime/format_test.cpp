#include "runtime/format.h"
#include "runtime/format_batch.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

namespace setup {
namespace {

using format_detail::ArgKind;
using format_detail::MakeArg;
using format_detail::TemplateMatches;

TEST(Format, RendersEverySpecifierTheMessageTemplatesUse) {
    const std::wstring wide = L"C:\\Program Files\\a.txt";
    EXPECT_EQ(Format(L"Copy file '%s' -> '%s'.", wide, std::wstring(L"b")),
              L"Copy file 'C:\\Program Files\\a.txt' -> 'b'.");
    EXPECT_EQ(Format(L"%s Error 0x%x.", std::wstring(L"Access."), static_cast<std::int32_t>(0x80070005)),
              L"Access. Error 0x80070005.");
    EXPECT_EQ(Format(L"Return value %d.", 1603u), L"Return value 1603.");
    EXPECT_EQ(Format(L"%d %i %d", -5, INT_MIN, 0), L"-5 -2147483648 0");
    EXPECT_EQ(Format(L"%u", -1), L"4294967295");
    EXPECT_EQ(Format(L"0x%x 0x%X", 255, 0xABCDu), L"0xff 0xABCD");
    EXPECT_EQ(Format(L"%x", static_cast<std::int64_t>(-1)), L"ffffffffffffffff");
    EXPECT_EQ(Format(L"%x", static_cast<short>(-1)), L"ffff");
    EXPECT_EQ(Format(L"100%% done"), L"100% done");
    EXPECT_EQ(Format(L"%c", 65), L"A");
}

TEST(Format, HonoursWidthZeroPaddingAndAlignment) {
    EXPECT_EQ(Format(L"[%02i:%02i:%02i:%03i]", 7, 5, 59, 42), L"[07:05:59:042]");
    EXPECT_EQ(Format(L"(%02x:%04x)", 0x1a, 0x2b), L"(1a:002b)");
    EXPECT_EQ(Format(L"%08X", 0xBEEFu), L"0000BEEF");
    EXPECT_EQ(Format(L"%5d|%-5d|%05d", -42, 7, -42), L"  -42|7    |-0042");
    EXPECT_EQ(Format(L"%6s|%-6s|", std::wstring(L"ab"), std::wstring(L"cd")), L"    ab|cd    |");
    EXPECT_EQ(Format(L"%.3s", std::wstring(L"abcdef")), L"abc");
    EXPECT_EQ(Format(L"%+d %#x", 3, 255), L"+3 0xff");
    EXPECT_EQ(Format(L"%02i", 123), L"123");  // width is a minimum, never a cut
}

TEST(Format, TakesNarrowAndWideStringsAlike) {
    const char* narrow = "GetWellKnownSids";
    EXPECT_EQ(Format(L"%S (%s) %ls %hs", narrow, std::string("n"), L"w", std::string_view("v")),
                  L"GetWellKnownSids (n) w v");
    EXPECT_EQ(Format(L"%s", static_cast<const wchar_t*>(nullptr)), L"(null)");
    // Narrow text is UTF-8: the German administrators group survives the trip.
    EXPECT_EQ(Format(L"%s", std::string("Administratoren \xC3\xBC")), L"Administratoren \u00FC");
    EXPECT_EQ(Format("Entering %s in %ls, version %u.%u.%u.%u", "A", L"C:\\u.dll", 1u, 2u, 3u, 4u),
              L"Entering A in C:\\u.dll, version 1.2.3.4");
}

TEST(Format, ChecksTemplatesAgainstArgumentTypes) {
    // The same check that refuses to compile Format(L"%d", std::wstring()) at a call site.
    static_assert(TemplateMatches<wchar_t>(L"%s Error 0x%x.", {ArgKind::String, ArgKind::Integer}));
    static_assert(!TemplateMatches<wchar_t>(L"%s Error 0x%x.", {ArgKind::Integer, ArgKind::Integer}));
    static_assert(!TemplateMatches<wchar_t>(L"%d", {ArgKind::String}));
    static_assert(!TemplateMatches<wchar_t>(L"%s %s", {ArgKind::String}));      // too few arguments
    static_assert(!TemplateMatches<wchar_t>(L"%s", {ArgKind::String, ArgKind::String}));  // too many
    static_assert(!TemplateMatches<wchar_t>(L"50%", {}));                       // dangling '%'
    static_assert(!TemplateMatches<wchar_t>(L"%q", {ArgKind::Integer}));        // unknown conversion
    static_assert(TemplateMatches<wchar_t>(L"%% [\\[]%02i[\\]]", {ArgKind::Integer}));
    static_assert(TemplateMatches<char>("%I64d %lu %hs", {ArgKind::Integer, ArgKind::Integer, ArgKind::String}));
}

TEST(Format, RuntimeMismatchRendersAMarkerInsteadOfReadingMemory) {
    const std::wstring text = L"x";  // arguments borrow their text: it must outlive them
    const format_detail::Arg args[] = {MakeArg(42), MakeArg(text)};
    EXPECT_EQ(FormatArgs(L"%s|%d|%d", args, 2), L"%!s|%!d|%!d");
    EXPECT_EQ(FormatArgs(L"%d %s", args, 2), L"42 x");
    EXPECT_EQ(FormatArgs(L"tail %", args, 0), L"tail %!");
    EXPECT_EQ(FormatArgs(L"%y%d", args, 1), L"%!y42");
}

TEST(Format, WidenReplacesMalformedUtf8) {
    EXPECT_EQ(Widen("ab\xFF" "c"), L"ab\uFFFDc");
    EXPECT_EQ(Widen("cut \xE2\x82"), L"cut \uFFFD");
    const std::wstring euro = Widen("\xE2\x82\xAC");
    ASSERT_EQ(euro.size(), 1u);
    EXPECT_EQ(euro[0], static_cast<wchar_t>(0x20AC));
}

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
