#pragma once
// Planning of the XmlFile table: which rows edit on install, which take their
// edits back on uninstall, the edits of each file in order, the namespaces of
// a selection, the undo records that let uninstall put old values back, and
// the bytes of a document in its own encoding and line ends. Plain functions
// over plain data.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/record_heir.h"
#include "runtime/log_sink.h"
#include "services/xml_namespaces.h"

namespace setup {

namespace xml_file {
// Action column.
enum Action : int {
    SetValue = 0,        // the attribute `Name` (or the text) of the first match
    SetEveryValue = 1,   // ... of every match
    CreateElement = 2,   // a new element `Name` (text `Value`) under each match
    DeleteAttribute = 3, // the attribute `Name` of each match
    DeleteElements = 4,  // every match
    AppendFragment = 5,  // the XML fragment `Value` under each match
};
// Attributes bits.
enum : int {
    Permanent = 0x1,    // not taken back on uninstall
    OnUninstall = 0x2,  // the edit is made on uninstall instead of install
    CreateFile = 0x4,   // a missing file is created with the root element the XPath begins with
    SkipMissing = 0x8,  // a missing file, or an XPath that matches nothing, is a logged skip
    Secret = 0x10,      // the value never appears in the log
    KeepTime = 0x20,    // the file keeps its modification time
};
inline constexpr int kKnownBits = 0x3F;
}  // namespace xml_file

struct XmlFileRow {
    std::wstring id;
    std::wstring file;   // formatted
    std::wstring xpath;  // formatted
    int action = 0;
    std::wstring name;
    std::wstring value;  // formatted
    std::wstring namespaces;
    int sequence = 0;
    int attributes = 0;
    std::wstring component;
    std::wstring condition;
};

// One edit, or (undo) one row whose recorded edits are taken back.
struct XmlEdit {
    std::wstring id;
    std::wstring xpath;
    int action = 0;
    std::wstring name;
    std::wstring value;
    std::wstring namespaces;
    int attributes = 0;
    bool operator==(const XmlEdit&) const = default;
};

// The work on one file, in order. `backup` is a fresh name beside it: the
// deferred action copies the file there before it changes anything.
struct XmlFileItem {
    std::wstring path;
    std::wstring backup;
    bool undo = false;  // uninstall: the recorded edits are taken back, latest first
    std::vector<XmlEdit> edits;
    bool operator==(const XmlFileItem&) const = default;
};

class XmlFileMachine {
public:
    virtual ~XmlFileMachine() = default;
    virtual std::wstring NewUuid() = 0;
};

// The decision for one row: install-time rows edit on install and reinstall
// and are taken back on uninstall (unless permanent); rows with 0x2 edit on
// uninstall only.
Decision DecideXmlFile(ComponentStates& states, const XmlFileRow& row, LogSink& log);

// The chosen rows of one immediate action (`InstallXmlFiles`: components
// installed or reinstalled; `UninstallXmlFiles`, `uninstalling`: components
// uninstalled; the other action's rows pass without a line), grouped per file
// (first appearance, letter case ignored), each file's edits by Sequence, then
// by key; undo items list their rows in the reverse order. A row with an
// unknown action or malformed namespaces throws E_INVALIDARG with its id.
std::vector<XmlFileItem> PlanXmlFiles(const std::vector<XmlFileRow>& rows, ComponentStates& states,
                                      bool uninstalling, XmlFileMachine& machine, LogSink& log);

// The XPath column is formatted, and the installer reads every "[...]" as a
// reference. Predicates that cannot be one (they begin with '@', a digit, a
// quote, '.', '(', '*' or '/': "[@key='port']", "[2]") are escaped here before
// formatting, with their closing bracket, so that authors write them as XPath;
// references inside them ("[@key='[KEY]']") stay references. Other predicates
// ("[last()]", "[text()='x']") are written escaped: "[\[]last()[\]]".
//
// A property's value is data, never XPath: each string literal of a predicate,
// and each reference standing alone in one ("[@key=[KEY]]"), is marked with
// kXPathLiteralBegin/End, and SealXPathLiterals makes every marked span one
// literal after formatting. References in the location path itself
// ("[ROOT]/add") stay path text: they name elements the author chose.
inline constexpr wchar_t kXPathLiteralBegin = L'\x1D';
inline constexpr wchar_t kXPathLiteralEnd = L'\x1E';
std::wstring EscapeXPathPredicates(std::wstring_view xpath);

// `value` as one XPath 1.0 literal: in apostrophes, in double quotes when it
// holds an apostrophe, or concat() of both kinds when it holds both.
std::wstring XPathLiteral(std::wstring_view value);

// The formatted XPath with each marked span as one literal; nothing when the
// marks do not pair up into exactly `spans` spans (a value that held a mark).
std::optional<std::wstring> SealXPathLiterals(std::wstring_view formatted, std::size_t spans);


// The element name an XPath begins with ("/a:config/x" -> "a:config"), for a
// file created with its root element; empty when it begins otherwise.
std::wstring RootElementOf(std::wstring_view xpath);

// A value as the log shows it: "***" for a secret row.
std::wstring LoggedValue(const XmlEdit& edit, std::wstring_view value);

// --- A document's bytes ---

struct XmlEncoding {
    enum Kind { Utf8, Utf8Bom, Utf16Le, Utf16Be, Latin1, Windows1252 };
    Kind kind = Utf8;
    bool crlf = false;     // the file's line ends: CR LF (else LF)
    bool lastLine = true;  // the text ends with a line end
    bool operator==(const XmlEncoding&) const = default;
};

// The encoding and the line ends (CR LF when the text has any) of a file's
// bytes, and its text. The encoding is the byte-order mark's; without one,
// the declaration's: UTF-8 (also when none is declared), ISO-8859-1 (and its
// names latin1, l1, us-ascii) or windows-1252. Throws E_INVALIDARG "The XML
// file declares the encoding '<name>', which the library cannot keep." for
// any other, "... is not valid UTF-8", or for an odd number of UTF-16 bytes;
// the caller asks before it makes any backup.
XmlEncoding DetectXmlEncoding(const std::vector<unsigned char>& bytes);
std::wstring DecodeXmlText(const std::vector<unsigned char>& bytes, const XmlEncoding& encoding);

// The bytes of a serialised document in `encoding`: line ends made what they
// were, the original XML declaration (`declaration`, empty when it had none)
// in place of the serialiser's, and the byte-order mark when it had one.
std::vector<unsigned char> EncodeXmlText(std::wstring_view serialised, const XmlEncoding& encoding,
                                         std::wstring_view declaration);

// The XML declaration a text begins with ("<?xml ... ?>"), or empty.
std::wstring XmlDeclarationOf(std::wstring_view text);
// True when the text declares a document type (<!DOCTYPE) before its root.
bool DeclaresDocumentType(std::wstring_view text);

// --- Undo records ---

// One step that takes an edit back, kept where uninstall finds it. Nodes are
// named by position ("/*[1]/*[2]", "/*[1]/text()[3]"), which needs no namespace.
struct XmlUndoStep {
    enum Kind { Attribute, Text, RemoveNode, InsertNode };
    Kind kind = Attribute;
    std::wstring node;    // Attribute, Text, RemoveNode: the node; InsertNode: the parent
    std::wstring name;    // Attribute: its name
    std::optional<std::wstring> value;  // Attribute: the old value (none: it did not exist); Text: the old text
    std::wstring xml;     // InsertNode: the removed node's XML
    int index = 0;        // InsertNode: how many element siblings stood before it
    // What stood at `node` when the edit was made: its name, and for
    // RemoveNode the ContentHash of its XML. A take-back acts only on the
    // same node (empty: a record from before these were kept).
    std::wstring nodeName;
    std::wstring hash;
    bool operator==(const XmlUndoStep&) const = default;
};

// 16 hex digits (64-bit FNV-1a over the UTF-16 code units): enough to tell
// whether a node's XML is still what an edit made.
std::wstring ContentHash(std::wstring_view xml);

std::wstring EncodeXmlUndo(const std::vector<XmlUndoStep>& steps);
std::vector<XmlUndoStep> DecodeXmlUndo(std::wstring_view text);
// A record handed over to the product that keeps the work: this product's
// steps were made first, so they are taken back last.
std::wstring MergeXmlUndo(const std::wstring& ours, const std::optional<std::wstring>& heirs);

// The data of the scheduled actions: the files, the product, and for
// rollback the records as they stood (id, text; no text: none).
struct XmlRecordValue {
    std::wstring id;
    std::optional<std::wstring> text;
    bool operator==(const XmlRecordValue&) const = default;
};

struct XmlFileActionData {
    std::vector<XmlFileItem> items;
    std::wstring product;
    std::vector<XmlRecordValue> records;
    std::vector<RecordHandover> handovers;  // uninstall: records that pass to another product
};

std::wstring EncodeXmlFileActionData(const XmlFileActionData& data);
XmlFileActionData DecodeXmlFileActionData(std::wstring_view text);

}  // namespace setup
