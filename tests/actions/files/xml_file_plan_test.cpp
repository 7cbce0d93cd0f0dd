#include "actions/files/xml_file_plan.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "runtime/exception.h"
#include "runtime/fake_component_states.h"

namespace setup {
namespace {

using namespace xml_file;

class FakeMachine : public XmlFileMachine {
public:
    std::wstring NewUuid() override { return L"u" + std::to_wstring(++uuids); }
    int uuids = 0;
};

std::vector<unsigned char> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

TEST(XmlFilePlan, EscapesPredicatesButNotReferences) {
    // '{' and '}' stand for the marks around what becomes one literal.
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"/a/b", L"/a/b"},
        {L"//add[@key='port']", L"//add[\\[]@key={port}[\\]]"},
        {L"/a/b[2]/c", L"/a/b[\\[]2[\\]]/c"},
        {L"//add[@key='[KEY]']", L"//add[\\[]@key={[KEY]}[\\]]"},  // a property inside a literal
        {L"//add[@key=[KEY]]", L"//add[\\[]@key={[KEY]}[\\]]"},    // ... or standing alone in a predicate
        {L"[INSTALLDIR]", L"[INSTALLDIR]"},
        {L"/a[last()]", L"/a[last()]"},  // ambiguous: written escaped by the author
        {L"/a[@x=\"]\"]/b", L"/a[\\[]@x={]}[\\]]/b"},
        {L"/a[.//b[@c]]", L"/a[\\[].//b[\\[]@c[\\]][\\]]"},
    };
    for (const auto& [xpath, escaped] : cases) {
        std::wstring marked = EscapeXPathPredicates(xpath);
        std::replace(marked.begin(), marked.end(), kXPathLiteralBegin, L'{');
        std::replace(marked.begin(), marked.end(), kXPathLiteralEnd, L'}');
        EXPECT_EQ(marked, escaped) << xpath;
    }
}

// A property's value is data: whatever quotes or XPath it holds, it is one literal.
TEST(XmlFilePlan, PropertyValuesBecomeLiterals) {
    const std::wstring b(1, kXPathLiteralBegin), e(1, kXPathLiteralEnd);
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"plain", L"'plain'"},
        {L"it's", L"\"it's\""},
        {L"nosuch'] | /config/add[@key!='", L"\"nosuch'] | /config/add[@key!='\""},
        {L"a'b\"c'", L"concat('a', \"'\", 'b\"c', \"'\")"},
        {L"'\"", L"concat(\"'\", '\"')"},
    };
    for (const auto& [value, literal] : cases) {
        EXPECT_EQ(XPathLiteral(value), literal);
        EXPECT_EQ(SealXPathLiterals(L"/c/add[@key=" + b + value + e + L"]", 1), L"/c/add[@key=" + literal + L"]");
    }
    // A value that carries a mark of its own cannot pair up.
    EXPECT_EQ(SealXPathLiterals(b + L"x" + e + L"]|//*[" + b + L"y" + e, 1), std::nullopt);
    EXPECT_EQ(SealXPathLiterals(b + L"x" + e + e, 1), std::nullopt);
    EXPECT_EQ(SealXPathLiterals(b + L"x" + b + e, 1), std::nullopt);
}

TEST(XmlFilePlan, NamespacesRootsAndDocumentTypes) {
    EXPECT_EQ(SelectionNamespaces(L" a=urn:x\tb=http://y/z "), L"xmlns:a='urn:x' xmlns:b='http://y/z'");
    EXPECT_EQ(SelectionNamespaces(L""), L"");
    for (const wchar_t* bad : {L"a", L"=urn:x", L"a=", L"a='x'"}) EXPECT_FALSE(SelectionNamespaces(bad)) << bad;
    EXPECT_EQ(RootElementOf(L"/c:config/x"), L"c:config");
    EXPECT_EQ(RootElementOf(L"/root[@a]"), L"root");
    EXPECT_EQ(RootElementOf(L"//x"), L"");
    EXPECT_EQ(RootElementOf(L"/*"), L"");
    EXPECT_TRUE(DeclaresDocumentType(L"<?xml version=\"1.0\"?>\n<!-- c --><!DOCTYPE a [<!ENTITY e \"x\">]><a/>"));
    EXPECT_FALSE(DeclaresDocumentType(L"<?xml version=\"1.0\"?>\n<a><!DOCTYPE b></a>"));
    EXPECT_FALSE(DeclaresDocumentType(L"<!-- <!DOCTYPE in a comment> --><a/>"));
}

TEST(XmlFilePlan, DocumentsKeepTheirEncodingDeclarationAndLineEnds) {
    const std::string declared = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";
    const std::vector<unsigned char> bom = Bytes("\xEF\xBB\xBF" + declared + "\r\n<a>\r\n  <b/>\r\n</a>\r\n");
    const XmlEncoding encoding = DetectXmlEncoding(bom);
    EXPECT_EQ(encoding, (XmlEncoding{XmlEncoding::Utf8Bom, true, true}));
    const std::wstring text = DecodeXmlText(bom, encoding);
    EXPECT_EQ(XmlDeclarationOf(text), L"<?xml version=\"1.0\" encoding=\"utf-8\"?>");
    // The serialiser's declaration (without the encoding) and LF become the file's own again.
    EXPECT_EQ(EncodeXmlText(L"<?xml version=\"1.0\"?>\r\n<a>\n  <b/>\n</a>\r\n", encoding, XmlDeclarationOf(text)), bom);
    // No declaration and no final line end stay so.
    const std::vector<unsigned char> bare = Bytes("<a x=\"\xC3\xA9\"/>");
    const XmlEncoding plain = DetectXmlEncoding(bare);
    EXPECT_EQ(plain, (XmlEncoding{XmlEncoding::Utf8, false, false}));
    EXPECT_EQ(DecodeXmlText(bare, plain), L"<a x=\"\u00e9\"/>");
    EXPECT_EQ(EncodeXmlText(L"<?xml version=\"1.0\"?>\r\n<a x=\"\u00e9\"/>\r\n", plain, L""), bare);
    // UTF-16 both ways round, a character outside the basic plane in UTF-8.
    const std::vector<unsigned char> be = {0xFE, 0xFF, 0x00, '<', 0x00, 'a', 0x00, '/', 0x00, '>', 0x00, '\n'};
    const XmlEncoding bigEndian = DetectXmlEncoding(be);
    EXPECT_EQ(bigEndian.kind, XmlEncoding::Utf16Be);
    EXPECT_EQ(EncodeXmlText(DecodeXmlText(be, bigEndian), bigEndian, L""), be);
    EXPECT_EQ(DecodeXmlText(Bytes("\xF0\x9F\x98\x80"), plain), std::wstring(L"\xD83D\xDE00"));
    EXPECT_EQ(EncodeXmlText(L"\xD83D\xDE00", plain, L""), Bytes("\xF0\x9F\x98\x80"));
    EXPECT_THROW(DetectXmlEncoding(Bytes("<a>\xC3</a>")), Exception);
    EXPECT_THROW(DetectXmlEncoding({0xFF, 0xFE, 0x3C}), Exception);
    // Without a byte-order mark the declaration names the encoding; a character
    // it lacks is written as a reference, and one it cannot keep is refused.
    const std::vector<unsigned char> latin = Bytes("<?xml version='1.0' encoding='ISO-8859-1'?><a x='\xE9'/>");
    const XmlEncoding latin1 = DetectXmlEncoding(latin);
    EXPECT_EQ(latin1.kind, XmlEncoding::Latin1);
    EXPECT_EQ(DecodeXmlText(latin, latin1), L"<?xml version='1.0' encoding='ISO-8859-1'?><a x='\u00e9'/>");
    EXPECT_EQ(EncodeXmlText(L"<a x='Z\u00fcrich \u20ac'/>", latin1, L""), Bytes("<a x='Z\xFCrich &#x20ac;'/>"));
    const std::vector<unsigned char> cp = Bytes("<?xml version=\"1.0\" encoding=\"windows-1252\"?><a>\x80\xE9</a>");
    const XmlEncoding windows = DetectXmlEncoding(cp);
    EXPECT_EQ(windows.kind, XmlEncoding::Windows1252);
    EXPECT_EQ(DecodeXmlText(cp, windows).substr(45), L"<a>\u20ac\u00e9</a>");
    EXPECT_EQ(EncodeXmlText(DecodeXmlText(cp, windows), windows, XmlDeclarationOf(DecodeXmlText(cp, windows))), cp);
    EXPECT_THROW(DetectXmlEncoding(Bytes("<?xml version='1.0' encoding='Shift_JIS'?><a/>")), Exception);
}

TEST(XmlFilePlan, RowsGroupPerFileInSequenceAndUndoRunsBackwards) {
    test::FakeComponentStates states;
    const auto row = [](const wchar_t* id, const wchar_t* file, int sequence, int attributes, const wchar_t* component,
                        const wchar_t* condition = L"") {
        return XmlFileRow{id, file, L"/a", SetValue, L"x", L"1", L"", sequence, attributes, component, condition};
    };
    const std::vector<XmlFileRow> rows = {
        row(L"B", L"C:\\app\\web.config", 2, 0, L"Install"), row(L"A", L"C:\\APP\\Web.Config", 2, 0, L"Install"),
        row(L"First", L"C:\\app\\web.config", 1, 0, L"Install"), row(L"Other", L"C:\\app\\other.xml", 0, 0, L"Install"),
        row(L"Off", L"C:\\app\\web.config", 0, 0, L"Install", L"FALSE"),
        row(L"Later", L"C:\\app\\web.config", 0, OnUninstall, L"Install"),
        row(L"Undo1", L"C:\\app\\web.config", 1, 0, L"Remove"), row(L"Undo2", L"C:\\app\\web.config", 2, 0, L"Remove"),
        row(L"Kept", L"C:\\app\\web.config", 3, Permanent, L"Remove"),
        row(L"Now", L"C:\\app\\web.config", 4, OnUninstall, L"Remove", L"FALSE"),
        row(L"Idle", L"C:\\app\\web.config", 0, 0, L"Idle"),
    };
    FakeMachine machine;
    RecordingLogSink log;
    const std::vector<XmlFileItem> install = PlanXmlFiles(rows, states, false, machine, log);
    ASSERT_EQ(install.size(), 2u);
    EXPECT_EQ(install[0].path, L"C:\\app\\web.config");
    EXPECT_EQ(install[0].backup, L"C:\\app\\u1");
    std::vector<std::wstring> ids;
    for (const XmlEdit& edit : install[0].edits) ids.push_back(edit.id);
    EXPECT_EQ(ids, (std::vector<std::wstring>{L"First", L"A", L"B"}));
    EXPECT_NE(std::find(log.lines.begin(), log.lines.end(),
                        L"Skip xml edit 'Later', 'C:\\app\\web.config'. It is made on uninstall (0x2)."),
              log.lines.end());
    EXPECT_EQ(log.lines.back(), L"Skip xml edit 'Idle', 'C:\\app\\web.config' for null-action component.");

    RecordingLogSink uninstallLog;
    const std::vector<XmlFileItem> uninstall = PlanXmlFiles(rows, states, true, machine, uninstallLog);
    ASSERT_EQ(uninstall.size(), 1u);
    EXPECT_TRUE(uninstall[0].undo);
    ASSERT_EQ(uninstall[0].edits.size(), 2u);
    EXPECT_EQ(uninstall[0].edits[0].id, L"Undo2");  // latest first
    EXPECT_EQ(uninstallLog.lines, (std::vector<std::wstring>{
                                      L"Need to take back xml edit 'Undo1' in 'C:\\app\\web.config'. Component to do 2.",
                                      L"Need to take back xml edit 'Undo2' in 'C:\\app\\web.config'. Component to do 2.",
                                      L"Skip xml edit 'Kept', 'C:\\app\\web.config'. It is permanent (0x1): uninstall "
                                      L"leaves it.",
                                      L"Skip xml edit 'Now', 'C:\\app\\web.config'. Condition is '0'.",
                                  }));

    std::vector<XmlFileRow> bad = {row(L"Bad", L"C:\\a.xml", 0, 0, L"Install")};
    bad[0].action = 6;
    EXPECT_THROW(PlanXmlFiles(bad, states, false, machine, log), Exception);
    bad[0].action = SetValue;
    bad[0].namespaces = L"nonsense";
    EXPECT_THROW(PlanXmlFiles(bad, states, false, machine, log), Exception);
}

TEST(XmlFilePlan, UndoRecordsAndActionDataTravel) {
    const std::vector<XmlUndoStep> steps = {
        {XmlUndoStep::Attribute, L"/*[1]/*[2]", L"value", L"80", L"", 0, L"add", L""},
        {XmlUndoStep::Attribute, L"/*[1]", L"new", std::nullopt, L"", 0, L"", L""},
        {XmlUndoStep::Text, L"/*[1]/*[3]", L"", L"", L"", 0, L"", L""},
        {XmlUndoStep::InsertNode, L"/*[1]", L"", std::nullopt, L"\n    <add key=\"a;b|c^d\"/>", 2, L"", L""},
        {XmlUndoStep::RemoveNode, L"/*[1]/text()[4]", L"", std::nullopt, L"", 0, L"#text", ContentHash(L"x")},
    };
    EXPECT_EQ(DecodeXmlUndo(EncodeXmlUndo(steps)), steps);

    XmlFileActionData data;
    data.items = {{L"C:\\a.xml", L"C:\\u1", true, {{L"E", L"/a[@b='c|d']", AppendFragment, L"", L"<x>\n</x>", L"p=urn:q", Secret}}}};
    data.product = L"{P}";
    data.records = {{L"E", L"text"}, {L"F", std::nullopt}, {L"G", L""}};
    const XmlFileActionData back = DecodeXmlFileActionData(EncodeXmlFileActionData(data));
    EXPECT_EQ(back.items, data.items);
    EXPECT_EQ(back.product, data.product);
    EXPECT_EQ(back.records, data.records);
    EXPECT_EQ(LoggedValue(data.items[0].edits[0], L"pw"), L"***");
}

}  // namespace
}  // namespace setup
