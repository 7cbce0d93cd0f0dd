#include <gtest/gtest.h>

#include "actions/registry/registry_fixup_plan.h"
#include "actions/registry/registry_value.h"
#include "actions/system/os_version_plan.h"
#include "runtime/exception.h"
#include "runtime/fake_component_states.h"

namespace setup {
namespace {

TEST(RegistryValue, RootsRedirectionAndBytes) {
    EXPECT_EQ(RootLongName(7), L"HKEY_LOCAL_MACHINE");
    EXPECT_EQ(RootLongName(-1), L"HKEY_LOCAL_MACHINE");
    EXPECT_EQ(RootShortName(0), L"CLASSES_ROOT");
    EXPECT_EQ(RootFromShortName(L"CLASSES_ROOTX\\Foo"), 0);
    EXPECT_EQ(RootFromShortName(L"USERS\\x"), 3);
    EXPECT_EQ(RootFromShortName(L"machine\\x"), 2);
    EXPECT_EQ(RedirectTo32(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\A"),
              L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Wow6432Node\\A");
    EXPECT_EQ(RedirectTo32(L"HKEY_LOCAL_MACHINE\\Software\\A"), L"HKEY_LOCAL_MACHINE\\Software\\A");
    EXPECT_EQ(RedirectTo32(L"HKEY_CLASSES_ROOT\\CLSID\\{x}"), L"HKEY_CLASSES_ROOT\\Wow6432Node\\CLSID\\{x}");
    EXPECT_EQ(ObjectNameToSubkey(L"MACHINE\\SOFTWARE\\Co"), L"SOFTWARE\\Co");
    EXPECT_EQ(ObjectNameToSubkey(L"MACHINE\\SYSTEM\\Co"), L"MACHINE\\SYSTEM\\Co");
    RecordingLogSink log;
    EXPECT_THROW(BytesToInteger({1, 2, 3}, &log), Exception);
    EXPECT_EQ(log.lines, std::vector<std::wstring>{L"Incorrect data size 3."});
    EXPECT_EQ(BytesToInteger({0x90, 0x1f, 0, 0, 9, 9, 9, 9}), 8080);
    EXPECT_EQ(BytesToQword(QwordBytes(5000000000ull)), 5000000000ull);
    EXPECT_EQ(RenderValue({L"n", kRegQword, QwordBytes(5000000000ull)}), L"5000000000");
    EXPECT_EQ(RenderValue({L"n", kRegBinary, {0xde, 0xad}}), L"dead");
}

TEST(RegistryFixups, AuthorIntegersInEveryNotation) {
    struct Case {
        const wchar_t* text;
        const wchar_t* dword;  // nullptr: refused
    };
    const Case cases[] = {
        {L"8080", L"8080"},     {L" 8080 ", L"8080"},    {L"+42", L"42"},        {L"0x1F", L"31"},
        {L"-1", L"-1"},         {L"4294967295", L"-1"},  {L"2147483648", L"-2147483648"},
        {L"5000000000", nullptr}, {L"-2147483649", nullptr}, {L"", nullptr}, {L"12a", nullptr}, {L"0x", nullptr},
        {L"- 1", nullptr},
    };
    for (const Case& c : cases) {
        if (c.dword) {
            EXPECT_EQ(NormalizeDwordProperty(c.text, L"PORT", L"Reg1"), c.dword) << c.text;
            continue;
        }
        try {
            NormalizeDwordProperty(c.text, L"PORT", L"Reg1");
            ADD_FAILURE() << "accepted " << testing::PrintToString(std::wstring(c.text));
        } catch (const Exception& e) {
            EXPECT_EQ(e.Message().rfind(L"The value '" + std::wstring(c.text) + L"' of property PORT for Registry "
                                        L"row 'Reg1' is not a DWORD: it is ", 0), 0u) << e.Message();
        }
    }
    EXPECT_EQ(IntegerPropertyOf(L"#[PORT]"), L"PORT");
    for (const wchar_t* other : {L"#8080", L"#[PORT]x", L"[PORT]", L"#[A B]", L"#[]", L"#x[P]"}) {
        EXPECT_FALSE(IntegerPropertyOf(other).has_value()) << other;
    }
}

TEST(RegistryFixups, QwordRowsAreDecidedParsedAndCarriedWithWhatWasThere) {
    test::FakeComponentStates states;
    states.states[L"C64"] = {2, 3};
    states.states[L"Gone"] = {3, 2};
    RecordingLogSink log;
    std::vector<QwordItem> items = PlanQwords(
        {{L"Q1", 2, L"Software\\Co", L"Big", L"0x1_", L"Gone", L""},
         {L"Q2", 2, L"Software\\Co", L"Big", L"0xFFFFFFFFFFFFFFFF", L"C64", L"", true},
         {L"Q3", 1, L"Software\\Co", L"Neg", L"-1", L"C64", L"FALSE"}},
        states, log);
    ASSERT_EQ(items.size(), 1u);  // Q1's component goes, Q3's condition is false: neither is parsed
    EXPECT_EQ(items[0].qword, UINT64_MAX);  // above the signed range: a qword is unsigned
    EXPECT_EQ(items[0].view, kView64);
    EXPECT_EQ(log.lines[1], L"Need to write qword registry row 'Q2'. Component 'C64' to do 1.");
    items[0].previous = RegistryValue{L"Big", kRegBinary, {0, 1, 0xff}};
    items.push_back({1, L"k", L"", kView32, 5000000000ull, std::nullopt});
    EXPECT_EQ(DecodeQwordItems(EncodeQwordItems(items)), items);
    EXPECT_THROW(PlanQwords({{L"Q4", 2, L"k", L"n", L"big", L"C64", L""}}, states, log), Exception);
}

TEST(OsVersion, PropertiesNameTheirSourcesAndAreNotCapped) {
    OsFacts facts;
    facts.major = 10, facts.minor = 0, facts.build = 22631, facts.productType = 1, facts.ubr = 3007;
    facts.displayVersion = L"23H2", facts.edition = 48, facts.nativeMachine = 0xAA64, facts.processMachine = 0x14c;
    facts.machineSource = L"IsWow64Process2";
    std::map<std::wstring, std::wstring> values;
    for (const OsProperty& p : OsProperties(facts)) values[p.name] = p.value;
    EXPECT_EQ(values[L"OS_VERSION"], L"10.0.22631");
    EXPECT_EQ(values[L"OS_VERSIONNT"], L"1000");
    EXPECT_EQ(values[L"OS_UBR"], L"3007");
    EXPECT_EQ(values[L"OS_WINDOWS11"], L"1");
    EXPECT_EQ(values[L"OS_NATIVE_MACHINE"], L"arm64");
    EXPECT_EQ(values[L"OS_PROCESS_MACHINE"], L"x86");
    EXPECT_EQ(values[L"OS_EDITION"], L"48");
    facts.productType = 3;  // a server of the same build is not Windows 11
    facts.ubr.reset();
    for (const OsProperty& p : OsProperties(facts)) {
        if (p.name == L"OS_WINDOWS11") { EXPECT_EQ(p.value, L""); }
        if (p.name == L"OS_UBR") { EXPECT_NE(p.source.find(L"is not there"), std::wstring::npos); }
    }
    EXPECT_EQ(OsProperties(OsFacts{}).size(), 12u);
}

}  // namespace
}  // namespace setup
