#include "actions/security/permission_plan.h"

#include <gtest/gtest.h>

#include "runtime/fake_component_states.h"

namespace setup {
namespace {

using namespace permission;

Sddl Parsed(const wchar_t* text) {
    std::wstring why;
    const std::optional<Sddl> sddl = ParseSddl(text, &why);
    EXPECT_TRUE(sddl) << text << ": " << why;
    return sddl.value_or(Sddl{});
}

std::wstring Merged(const wchar_t* current, const wchar_t* row, int attributes, std::vector<SddlAce>* added = nullptr) {
    return MergePermissions(Parsed(current), Parsed(row), attributes, added).Text();
}

TEST(Sddl, PartsRoundTripAndBadTextIsNamed) {
    for (const wchar_t* text : {L"O:BAG:BAD:PAI(D;;FA;;;WD)(A;OICI;0x1200a9;;;S-1-5-32-545)(A;OICIID;FA;;;SY)",
                                L"D:", L"O:S-1-5-18", L"D:AI(OA;;CR;a-b;;WD)S:(AU;SA;FA;;;WD)",
                                L"D:(A;;FA;;;Authenticated Users)"}) {
        EXPECT_EQ(Parsed(text).Text(), text);
    }
    std::wstring why;
    EXPECT_FALSE(ParseSddl(L"D:(A;;FA;;WD)", &why));
    EXPECT_EQ(why, L"the entry '(A;;FA;;WD)' does not have six fields");
    EXPECT_FALSE(ParseSddl(L"D:X(A;;FA;;;WD)", &why));
    EXPECT_FALSE(ParseSddl(L"D:(A;XX;FA;;;WD)", &why));
    EXPECT_FALSE(ParseSddl(L"Q:BA", &why));
    EXPECT_FALSE(ParseSddl(L"D:(A;;FA;;;WD", &why));
    EXPECT_FALSE(ParseSddl(L"", &why));
}

TEST(PermissionMerge, EveryModeKeepsCanonicalOrderAndInheritedEntries) {
    const wchar_t* current = L"O:BAG:SYD:AI(D;;FW;;;GU)(A;;FR;;;BU)(A;ID;FA;;;SY)(A;ID;FA;;;BA)";
    struct Case { const wchar_t* row; int attributes; const wchar_t* expected; };
    const Case cases[] = {
        // merge: an allow after the explicit entries, a deny after the denies, a present entry once
        {L"D:(A;;FA;;;AU)(D;;FX;;;AN)(A;;FR;;;BU)", 0,
         L"O:BAG:SYD:AI(D;;FW;;;GU)(D;;FX;;;AN)(A;;FR;;;BU)(A;;FA;;;AU)(A;ID;FA;;;SY)(A;ID;FA;;;BA)"},
        {L"D:(A;;FA;;;AU)", Replace, L"O:BAG:SYD:AI(A;;FA;;;AU)(A;ID;FA;;;SY)(A;ID;FA;;;BA)"},
        {L"D:(A;;FA;;;BU)(A;;FA;;;GU)", Revoke, L"O:BAG:SYD:AI(A;ID;FA;;;SY)(A;ID;FA;;;BA)"},
        {L"D:(A;;FA;;;AU)", Protect,
         L"O:BAG:SYD:PAI(D;;FW;;;GU)(A;;FR;;;BU)(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;AU)"},
        {L"O:AUD:", Owner, L"O:AUG:SYD:AI(D;;FW;;;GU)(A;;FR;;;BU)(A;ID;FA;;;SY)(A;ID;FA;;;BA)"},
        {L"O:AUD:", 0, current},  // the owner only with 0x10
    };
    for (const Case& c : cases) {
        const std::wstring merged = Merged(current, c.row, c.attributes);
        EXPECT_EQ(merged, c.expected) << c.row << " " << c.attributes;
        EXPECT_TRUE(CanonicalOrder(Parsed(merged.c_str()).dacl)) << merged;
    }
    EXPECT_EQ(Merged(L"D:P(A;;FA;;;BA)", L"D:", Unprotect), L"D:(A;;FA;;;BA)");
    EXPECT_FALSE(CanonicalOrder(Parsed(L"D:(A;;FA;;;BA)(D;;FA;;;WD)").dacl));
    EXPECT_FALSE(CanonicalOrder(Parsed(L"D:(A;ID;FA;;;BA)(A;;FA;;;WD)").dacl));
}

TEST(PermissionMerge, ChildrenReceiveTheInheritableEntriesAsWindowsPropagatesThem) {
    const Sddl row = Parsed(L"D:(A;OICI;FA;;;AU)(A;CI;FR;;;BU)(A;OI;FX;;;WD)(A;CINP;FW;;;SY)(A;;FA;;;BA)");
    const auto texts = [](const std::vector<SddlAce>& aces) {
        std::wstring all;
        for (const SddlAce& ace : aces) all += ace.Text();
        return all;
    };
    EXPECT_EQ(texts(InheritedEntries(row, true)),
              L"(A;OICIID;FA;;;AU)(A;CIID;FR;;;BU)(A;OIIOID;FX;;;WD)(A;ID;FW;;;SY)");
    EXPECT_EQ(texts(InheritedEntries(row, false)), L"(A;ID;FA;;;AU)(A;ID;FX;;;WD)");
    // After the child's explicit entries, once; a protected child keeps its own.
    const std::vector<SddlAce> inherited = InheritedEntries(Parsed(L"D:(A;CI;KA;;;BU)"), true);
    std::vector<SddlAce> added;
    const Sddl child = MergeInherited(Parsed(L"D:(A;;KR;;;AU)(A;CIID;KR;;;SY)"), inherited, &added);
    EXPECT_EQ(child.Text(), L"D:(A;;KR;;;AU)(A;CIID;KA;;;BU)(A;CIID;KR;;;SY)");
    EXPECT_EQ(MergeInherited(child, inherited, nullptr), child);
    EXPECT_EQ(MergeInherited(Parsed(L"D:P(A;;KR;;;AU)"), inherited, nullptr).Text(), L"D:P(A;;KR;;;AU)");
    EXPECT_EQ(TakeBackPermissions(child, added).Text(), L"D:(A;;KR;;;AU)(A;CIID;KR;;;SY)");
}

TEST(PermissionMerge, UninstallTakesBackOnlyWhatTheRowAdded) {
    std::vector<SddlAce> added;
    const std::wstring installed = Merged(L"D:(A;;FR;;;BU)", L"D:(A;;FR;;;BU)(A;;FA;;;AU)", 0, &added);
    ASSERT_EQ(added.size(), 1u);  // BU's entry was there: not ours to take back
    // An administrator adds an entry after the install; it stays.
    const Sddl later = Parsed((installed + L"(A;;FA;;;S-1-5-21-1-2-3-1001)").c_str());
    EXPECT_EQ(TakeBackPermissions(later, added).Text(), L"D:(A;;FR;;;BU)(A;;FA;;;S-1-5-21-1-2-3-1001)");
    // Recorded as text, read back the same.
    const PermissionRecord record{L"0102ff", {added[0].Text()}};
    EXPECT_EQ(DecodePermissionRecord(EncodePermissionRecord(record)), record);
    EXPECT_EQ(HexToBytes(BytesToHex({0x00, 0x7f, 0xff})), (std::vector<unsigned char>{0x00, 0x7f, 0xff}));
}

TEST(PermissionPlan, RowsAreCheckedAndTheirDataTravels) {
    const PermissionRow good{L"P", L"Main", RegistryKey, L"Software\\A", 2, L"D:(A;CI;KR;;;BU)", L"", 0};
    EXPECT_EQ(PermissionRowProblem(good), L"");
    const std::pair<PermissionRow, const wchar_t*> bad[] = {
        {{L"P", L"Main", 4, L"x", -1, L"D:", L"", 0}, L"the object type 4 is none of"},
        {{L"P", L"Main", RegistryKey, L"Software\\A", 7, L"D:", L"", 0}, L"the root 7 is none of"},
        {{L"P", L"Main", File, L"C:\\a", -1, L"D:(A;;FA;;;BU", L"", 0}, L"does not parse: an entry is not closed"},
        {{L"P", L"Main", File, L"C:\\a", -1, L"D:(A;OICI;FA;;;BU)", L"", 0}, L"carries inheritance flags"},
        {{L"P", L"Main", File, L"C:\\a", -1, L"O:BA", L"", 0}, L"gives no DACL"},
        {{L"P", L"Main", Folder, L"C:\\a", -1, L"D:", L"", Protect | Unprotect}, L"both protects"},
        {{L"P", L"Main", File, L"C:\\a", -1, L"D:", L"", Children}, L"belong to a folder or a registry key only"},
        {{L"P", L"Main", Folder, L"C:\\a", -1, L"D:", L"", 0x400}, L"bits the library does not know"},
    };
    for (const auto& [row, why] : bad) EXPECT_NE(PermissionRowProblem(row).find(why), std::wstring::npos) << why;

    const PermissionActionData data{L"{P}", true, {{L"P", RegistryKey, L"Software\\A|b", 2, L"D:(A;;KA;;;BU)", 64,
                                                    L"ab12", std::wstring(L"original=01")}}};
    const PermissionActionData back = DecodePermissionActionData(EncodePermissionActionData(data));
    EXPECT_EQ(back.items, data.items);
    EXPECT_TRUE(back.uninstall);
}

}  // namespace
}  // namespace setup
