#include "runtime/property_map.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/action_data.h"

namespace setup {
namespace {

PropertyMap MapOf(std::initializer_list<std::pair<std::wstring, std::wstring>> entries) {
    PropertyMap map;
    for (const auto& [k, v] : entries) map.Set(k, v);
    return map;
}

TEST(PropertyMap, EncodesInKeyOrderAndDoublesOnlyThePairSeparator) {
    struct Case { PropertyMap map; std::wstring encoded; };
    const Case cases[] = {
        {MapOf({{L"k", L"a|b"}}), L"k=a||b"},
        {MapOf({{L"k", L"a|"}, {L"m", L"1"}}), L"k=a|||m=1"},   // value ending in '|'
        {MapOf({{L"k", L"x=y=z"}}), L"k=x=y=z"},                // '=' is never escaped
        {MapOf({{L"b", L"2"}, {L"a", L"1"}, {L"c", L""}}), L"a=1|b=2|c="},
        {MapOf({{L"k", L"||"}}), L"k=||||"},
        {PropertyMap(), L""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Encode(c.map, L'|', L'='), c.encoded);
        EXPECT_EQ(Decode(c.encoded, L'|', L'='), c.map) << c.encoded;
    }
}

TEST(PropertyMap, DecodesMalformedTextByItsRulesWithoutFailing) {
    struct Case { std::wstring text; PropertyMap expected; };
    const Case cases[] = {
        {L"x=1|y", MapOf({{L"x", L"1"}, {L"y", L""}})},    // an entry without '='
        {L"=5|k=v", MapOf({{L"k", L"v"}})},                // the empty key is dropped
        {L"k=1|k=2", MapOf({{L"k", L"2"}})},               // a later duplicate wins
        {L"k=a|||x=1", MapOf({{L"k", L"a|"}, {L"x", L"1"}})},
        {L"k=|||", MapOf({{L"k", L"|"}})},                 // a doubled bar at the very end
        {L"|||=|", MapOf({{L"||", L""}})},              // keys are taken raw, never unescaped
        {L"k==v", MapOf({{L"k", L"=v"}})},
        {L"|", MapOf({})},
        {L"k=v|", MapOf({{L"k", L"v"}})},
    };
    for (const Case& c : cases) EXPECT_EQ(Decode(c.text, L'|', L'='), c.expected) << c.text;
}

TEST(PropertyMap, IntegersRoundTripAndNonNumbersReadAsZero) {
    PropertyMap map;
    map.Set(L"atr", 1);
    map.Set(L"neg", -2147483647 - 1);
    map.Set(L"text", L"abc");
    map.Set(L"lead", L"  42x");
    map.Set(L"", 5);  // never stored
    EXPECT_EQ(map.Size(), 4u);
    EXPECT_EQ(map.Get(L"atr"), L"1");
    const PropertyMap back = Decode(Encode(map, L'|', L'='), L'|', L'=');
    EXPECT_EQ(back.GetInteger(L"atr"), 1);
    EXPECT_EQ(back.GetInteger(L"neg"), -2147483647 - 1);
    EXPECT_EQ(back.GetInteger(L"text"), 0);
    EXPECT_EQ(back.GetInteger(L"lead"), 42);
    EXPECT_EQ(back.GetInteger(L"missing"), 0);
    EXPECT_EQ(back.Get(L"missing"), L"");
    EXPECT_EQ(ParseInteger(L"99999999999"), 2147483647);
}

TEST(ActionData, ThreeLevelsRoundTripValuesHoldingEverySeparator) {
    const std::wstring nasty = L"a|b=c;d*e^f>g||;;^^**>>==|";
    std::vector<PropertyMap> records;
    for (int i = 0; i < 12; ++i) {  // more than 10: list order must not be "0, 1, 10, 11, 2"
        PropertyMap r;
        r.Set(L"path", L"C:\\dir " + std::to_wstring(i) + L"\\" + nasty);
        r.Set(L"content", nasty + L"\nline 2 [ProductName]\n" + nasty);
        r.Set(L"rbf", i % 2 ? L"" : nasty);
        r.Set(L"atr", i);
        records.push_back(r);
    }
    PropertyMap top;
    top.Set(L"files", EncodeRecordList(records));
    top.Set(L"pfr", EncodeTextList({nasty, L"", L"C:\\x"}));
    const std::wstring data = EncodeActionData(top);

    const PropertyMap decoded = DecodeActionData(data);
    EXPECT_EQ(DecodeRecordList(decoded.Get(L"files")), records);
    EXPECT_EQ(DecodeTextList(decoded.Get(L"pfr")), (std::vector<std::wstring>{nasty, L"", L"C:\\x"}));
    EXPECT_EQ(DecodeRecordList(L""), std::vector<PropertyMap>{});
    EXPECT_EQ(ListKey(7), L"00000007");
}

TEST(ActionData, FormattingCharactersTravelEscapedAndComeBackExactly) {
    // Data without them goes as it is; so does data a package set itself.
    EXPECT_EQ(EscapeFormatting(L"files=a^b"), L"files=a^b");
    EXPECT_EQ(UnescapeFormatting(L"pc=[x]"), L"pc=[x]");
    std::wstring marks;
    for (wchar_t c = L'\xE000'; c <= L'\xE007'; ++c) marks += c;
    for (const std::wstring& data : {L"/*[1]/*[22]" + marks, marks + L"[", std::wstring(L"]"), L"[" + marks + L"]", marks,
                                     L"pc={8F2A}^a<=>b" + marks, std::wstring(L"}{<")}) {
        const std::wstring escaped = EscapeFormatting(data);
        EXPECT_EQ(escaped.find_first_of(L"[]{}<"), std::wstring::npos);
        EXPECT_EQ(UnescapeFormatting(escaped), data);
    }
}

}  // namespace
}  // namespace setup
