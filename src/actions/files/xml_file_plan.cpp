#include "actions/files/xml_file_plan.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "runtime/action_data.h"
#include "runtime/exception.h"
#include "runtime/format.h"
#include "services/path.h"

namespace setup {

namespace {

using namespace xml_file;

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

std::wstring EncodeEdits(const std::vector<XmlEdit>& edits) {
    std::vector<PropertyMap> records;
    for (const XmlEdit& edit : edits) {
        PropertyMap record;
        record.Set(L"id", edit.id);
        record.Set(L"xp", edit.xpath);
        record.Set(L"act", edit.action);
        record.Set(L"name", edit.name);
        record.Set(L"val", edit.value);
        record.Set(L"ns", edit.namespaces);
        record.Set(L"atr", edit.attributes);
        records.push_back(std::move(record));
    }
    return EncodeRecordList(records);
}

std::vector<XmlEdit> DecodeEdits(std::wstring_view text) {
    std::vector<XmlEdit> edits;
    for (const PropertyMap& r : DecodeRecordList(text)) {
        edits.push_back({r.Get(L"id"), r.Get(L"xp"), r.GetInteger(L"act"), r.Get(L"name"), r.Get(L"val"),
                         r.Get(L"ns"), r.GetInteger(L"atr")});
    }
    return edits;
}

void AppendUtf8(std::vector<unsigned char>& out, std::wstring_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        }
        if (c < 0x80) {
            out.push_back(static_cast<unsigned char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<unsigned char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<unsigned char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<unsigned char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<unsigned char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<unsigned char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<unsigned char>(0x80 | (c & 0x3F)));
        }
    }
}

std::wstring DecodeUtf8(const std::vector<unsigned char>& bytes, std::size_t start) {
    std::wstring text;
    for (std::size_t i = start; i < bytes.size();) {
        const unsigned char lead = bytes[i];
        int extra = lead < 0x80 ? 0 : (lead & 0xE0) == 0xC0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : (lead & 0xF8) == 0xF0 ? 3 : -1;
        if (extra < 0 || i + static_cast<std::size_t>(extra) >= bytes.size()) {
            throw Exception(kInvalidArgument, Format(L"The file is not valid UTF-8 (byte %u).", i));
        }
        std::uint32_t c = extra == 0 ? lead : lead & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) {
            const unsigned char next = bytes[i + k];
            if ((next & 0xC0) != 0x80) throw Exception(kInvalidArgument, Format(L"The file is not valid UTF-8 (byte %u).", i));
            c = (c << 6) | (next & 0x3F);
        }
        i += static_cast<std::size_t>(extra) + 1;
        if (c >= 0x10000) {
            c -= 0x10000;
            text.push_back(static_cast<wchar_t>(0xD800 + (c >> 10)));
            text.push_back(static_cast<wchar_t>(0xDC00 + (c & 0x3FF)));
        } else {
            text.push_back(static_cast<wchar_t>(c));
        }
    }
    return text;
}

}  // namespace

Decision DecideXmlFile(ComponentStates& states, const XmlFileRow& row, LogSink& log) {
    Decision d;
    if (const auto state = states.State(row.component)) {
        d.state = *state;
        d.task = ClassifyComponent(*state);
    }
    const int task = static_cast<int>(d.task);
    const bool uninstall = d.task == ComponentTask::Uninstall;
    const bool onUninstall = (row.attributes & OnUninstall) != 0;
    d.verdict = Verdict::NotMarked;
    if (d.task == ComponentTask::None) {
        d.verdict = Verdict::NullAction;
        log.Info(L"Skip xml edit '%s', '%s' for null-action component.", row.id, row.file);
    } else if (!uninstall && onUninstall) {
        log.Info(L"Skip xml edit '%s', '%s'. It is made on uninstall (0x2).", row.id, row.file);
    } else if (uninstall && !onUninstall && (row.attributes & Permanent)) {
        log.Info(L"Skip xml edit '%s', '%s'. It is permanent (0x1): uninstall leaves it.", row.id, row.file);
    } else if (uninstall && !onUninstall) {
        // Taking an edit back depends on what was recorded, not on the condition.
        d.verdict = Verdict::Chosen;
        log.Info(L"Need to take back xml edit '%s' in '%s'. Component to do %d.", row.id, row.file, task);
    } else if ((d.condition = states.EvaluateCondition(row.condition)) == kConditionFalse ||
               d.condition == kConditionError) {
        d.verdict = Verdict::ConditionFailed;
        log.Info(L"Skip xml edit '%s', '%s'. Condition is '%d'.", row.id, row.file, d.condition);
    } else {
        d.verdict = Verdict::Chosen;
        log.Info(L"Need to edit xml file '%s' for '%s'. Component to do %d.", row.file, row.id, task);
    }
    return d;
}

std::vector<XmlFileItem> PlanXmlFiles(const std::vector<XmlFileRow>& rows, ComponentStates& states,
                                      bool uninstalling, XmlFileMachine& machine, LogSink& log) {
    struct Chosen {
        const XmlFileRow* row;
        bool undo;
    };
    std::vector<std::pair<std::wstring, std::vector<Chosen>>> files;  // (path key, rows) in first appearance
    std::map<std::wstring, std::size_t> index;
    for (const XmlFileRow& row : rows) {
        if (row.action < SetValue || row.action > AppendFragment) {
            throw Exception(kInvalidArgument, Format(L"The XmlFile row '%s' has action %d, which is none of 0 to 5.",
                                                     row.id, row.action));
        }
        if (!SelectionNamespaces(row.namespaces)) {
            throw Exception(kInvalidArgument, L"The XmlFile row '" + row.id + L"' has namespaces '" + row.namespaces +
                                                  L"' that are not prefix=uri pairs.");
        }
        const std::optional<ComponentState> state = states.State(row.component);
        if ((state && ClassifyComponent(*state) == ComponentTask::Uninstall) != uninstalling) continue;
        const Decision d = DecideXmlFile(states, row, log);
        if (!d.Chosen()) continue;
        const bool undo = d.task == ComponentTask::Uninstall && !(row.attributes & OnUninstall);
        // One item per file and kind: a file's undo and its edits never mix.
        const std::wstring key = PathKey(row.file) + (undo ? L"|undo" : L"");
        auto [it, added] = index.emplace(key, files.size());
        if (added) files.emplace_back(key, std::vector<Chosen>{});
        files[it->second].second.push_back({&row, undo});
    }
    std::vector<XmlFileItem> items;
    for (auto& [key, chosen] : files) {
        std::stable_sort(chosen.begin(), chosen.end(), [](const Chosen& a, const Chosen& b) {
            return a.row->sequence != b.row->sequence ? a.row->sequence < b.row->sequence : a.row->id < b.row->id;
        });
        XmlFileItem item;
        item.path = chosen.front().row->file;
        item.undo = chosen.front().undo;
        item.backup = JoinPath(DirectoryOf(item.path), machine.NewUuid());
        if (item.undo) std::reverse(chosen.begin(), chosen.end());
        for (const Chosen& c : chosen) {
            const XmlFileRow& r = *c.row;
            item.edits.push_back({r.id, r.xpath, r.action, r.name, r.value, r.namespaces, r.attributes});
        }
        items.push_back(std::move(item));
    }
    return items;
}

std::wstring EscapeXPathPredicates(std::wstring_view xpath) {
    const auto opensPredicate = [](wchar_t c) {
        return c == L'@' || (c >= L'0' && c <= L'9') || c == L'\'' || c == L'"' || c == L'.' || c == L'(' ||
               c == L'*' || c == L'/';
    };
    // What each unclosed '[' opened: a predicate (escaped), a reference, or a
    // reference standing alone in a predicate (its value becomes a literal).
    enum Bracket { Predicate, Reference, LiteralReference };
    std::wstring out;
    std::vector<Bracket> open;
    wchar_t quote = 0;  // inside a predicate's string literal
    for (std::size_t i = 0; i < xpath.size(); ++i) {
        const wchar_t c = xpath[i];
        const bool inPredicate = !open.empty() && open.back() == Predicate;
        if (quote != 0) {
            // Inside a predicate's literal only references count: "[@key='[KEY]']".
            if (c == quote) {
                quote = 0;
                out.push_back(kXPathLiteralEnd);
                continue;
            }
            if (c == L'[') {
                open.push_back(Reference);
            } else if (c == L']' && !open.empty() && open.back() != Predicate) {
                open.pop_back();
            }
            out.push_back(c);
            continue;
        }
        if (inPredicate && (c == L'\'' || c == L'"')) {
            quote = c;
            out.push_back(kXPathLiteralBegin);
        } else if (c == L'[') {
            if (i + 1 < xpath.size() && opensPredicate(xpath[i + 1])) {
                open.push_back(Predicate);
                out += L"[\\[]";
            } else {
                open.push_back(inPredicate ? LiteralReference : Reference);
                if (inPredicate) out.push_back(kXPathLiteralBegin);
                out.push_back(c);
            }
        } else if (c == L']' && !open.empty()) {
            switch (open.back()) {
            case Predicate: out += L"[\\]]"; break;
            case LiteralReference: out += L"]"; out.push_back(kXPathLiteralEnd); break;
            case Reference: out.push_back(c); break;
            }
            open.pop_back();
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::wstring XPathLiteral(std::wstring_view value) {
    if (value.find(L'\'') == std::wstring_view::npos) return L"'" + std::wstring(value) + L"'";
    if (value.find(L'"') == std::wstring_view::npos) return L"\"" + std::wstring(value) + L"\"";
    // Both kinds: XPath 1.0 has no escape, so the apostrophes go in as "'".
    std::wstring text = L"concat(";
    std::size_t start = 0;
    for (std::size_t quote = value.find(L'\''); quote != std::wstring_view::npos; quote = value.find(L'\'', start)) {
        if (quote > start) text += L"'" + std::wstring(value.substr(start, quote - start)) + L"', ";
        text += L"\"'\", ";
        start = quote + 1;
    }
    if (start < value.size()) text += L"'" + std::wstring(value.substr(start)) + L"', ";
    text.resize(text.size() - 2);
    return text + L")";
}

std::optional<std::wstring> SealXPathLiterals(std::wstring_view formatted, std::size_t spans) {
    std::wstring out;
    std::size_t found = 0;
    for (std::size_t i = 0; i < formatted.size(); ++i) {
        if (formatted[i] == kXPathLiteralEnd) return std::nullopt;
        if (formatted[i] != kXPathLiteralBegin) {
            out.push_back(formatted[i]);
            continue;
        }
        const std::size_t end = formatted.find_first_of(std::wstring{kXPathLiteralBegin, kXPathLiteralEnd}, i + 1);
        if (end == std::wstring_view::npos || formatted[end] != kXPathLiteralEnd) return std::nullopt;
        out += XPathLiteral(formatted.substr(i + 1, end - i - 1));
        ++found;
        i = end;
    }
    if (found != spans) return std::nullopt;
    return out;
}

std::wstring RootElementOf(std::wstring_view xpath) {
    if (xpath.size() < 2 || xpath[0] != L'/' || xpath[1] == L'/') return {};
    const std::size_t end = xpath.find_first_of(L"/[", 1);
    const std::wstring_view name = xpath.substr(1, end == std::wstring_view::npos ? std::wstring_view::npos : end - 1);
    if (name.empty() || name.find_first_of(L"*@()=' \"") != std::wstring_view::npos) return {};
    return std::wstring(name);
}

std::wstring LoggedValue(const XmlEdit& edit, std::wstring_view value) {
    return (edit.attributes & Secret) ? L"***" : std::wstring(value);
}

namespace {

// Bytes 0x80..0x9F of windows-1252 (0: not assigned, read as the C1 control).
constexpr char16_t kWindows1252[32] = {
    0x20AC, 0, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0, 0x017D, 0,
    0, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0, 0x017E, 0x0178};

// The encoding named by the declaration at the start of BOM-less bytes, in lower case; empty when none is.
std::wstring DeclaredEncoding(const std::vector<unsigned char>& bytes) {
    std::wstring head;
    for (std::size_t i = 0; i < bytes.size() && i < 256 && bytes[i] < 0x80; ++i) head.push_back(static_cast<wchar_t>(bytes[i]));
    const std::wstring declaration = XmlDeclarationOf(head);
    const std::size_t at = declaration.find(L"encoding");
    if (at == std::wstring::npos) return {};
    const std::size_t open = declaration.find_first_of(L"'\"", at);
    if (open == std::wstring::npos) return {};
    const std::size_t close = declaration.find(declaration[open], open + 1);
    if (close == std::wstring::npos) return {};
    return PathKey(declaration.substr(open + 1, close - open - 1));
}

wchar_t FromWindows1252(unsigned char b) {
    return b >= 0x80 && b < 0xA0 && kWindows1252[b - 0x80] != 0 ? static_cast<wchar_t>(kWindows1252[b - 0x80])
                                                               : static_cast<wchar_t>(b);
}

// The byte for a character in a single-byte encoding, or -1 when it has none.
int SingleByte(wchar_t c, XmlEncoding::Kind kind) {
    if (kind == XmlEncoding::Windows1252) {
        for (int i = 0; i < 32; ++i) {
            if (kWindows1252[i] != 0 && static_cast<wchar_t>(kWindows1252[i]) == c) return 0x80 + i;
        }
        if (c >= 0x80 && c < 0xA0 && kWindows1252[c - 0x80] != 0) return -1;  // that byte means another character
    }
    return c <= 0xFF ? static_cast<int>(c) : -1;
}

}  // namespace

XmlEncoding DetectXmlEncoding(const std::vector<unsigned char>& bytes) {
    XmlEncoding encoding;
    if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
        encoding.kind = XmlEncoding::Utf8Bom;
    } else if (bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
        encoding.kind = XmlEncoding::Utf16Le;
    } else if (bytes.size() >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
        encoding.kind = XmlEncoding::Utf16Be;
    } else {
        const std::wstring declared = DeclaredEncoding(bytes);
        if (declared == L"iso-8859-1" || declared == L"latin1" || declared == L"l1" || declared == L"us-ascii") {
            encoding.kind = XmlEncoding::Latin1;
        } else if (declared == L"windows-1252" || declared == L"cp1252") {
            encoding.kind = XmlEncoding::Windows1252;
        } else if (!declared.empty() && declared != L"utf-8" && declared != L"utf8") {
            throw Exception(kInvalidArgument,
                            L"The XML file declares the encoding '" + declared + L"', which the library cannot keep.");
        }
    }
    const std::wstring text = DecodeXmlText(bytes, encoding);
    encoding.crlf = text.find(L"\r\n") != std::wstring::npos;
    encoding.lastLine = !text.empty() && text.back() == L'\n';
    return encoding;
}

std::wstring DecodeXmlText(const std::vector<unsigned char>& bytes, const XmlEncoding& encoding) {
    switch (encoding.kind) {
    case XmlEncoding::Utf8: return DecodeUtf8(bytes, 0);
    case XmlEncoding::Utf8Bom: return DecodeUtf8(bytes, 3);
    case XmlEncoding::Latin1:
    case XmlEncoding::Windows1252: {
        std::wstring text;
        text.reserve(bytes.size());
        for (const unsigned char b : bytes) {
            text.push_back(encoding.kind == XmlEncoding::Latin1 ? static_cast<wchar_t>(b) : FromWindows1252(b));
        }
        return text;
    }
    default: break;
    }
    if (bytes.size() % 2 != 0) throw Exception(kInvalidArgument, L"The file has an odd number of UTF-16 bytes.");
    std::wstring text;
    const bool little = encoding.kind == XmlEncoding::Utf16Le;
    for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
        text.push_back(static_cast<wchar_t>(little ? bytes[i] | (bytes[i + 1] << 8) : (bytes[i] << 8) | bytes[i + 1]));
    }
    return text;
}

std::wstring XmlDeclarationOf(std::wstring_view text) {
    if (text.rfind(L"<?xml", 0) != 0 || text.size() < 6 || !IsBlank(text[5])) return {};
    const std::size_t end = text.find(L"?>");
    return end == std::wstring_view::npos ? std::wstring() : std::wstring(text.substr(0, end + 2));
}

bool DeclaresDocumentType(std::wstring_view text) {
    // Before the root element only declarations, comments and processing
    // instructions may stand; a DOCTYPE among them is what is refused.
    std::size_t i = 0;
    while ((i = text.find(L'<', i)) != std::wstring_view::npos) {
        if (text.compare(i, 9, L"<!DOCTYPE") == 0) return true;
        if (text.compare(i, 4, L"<!--") == 0) {
            const std::size_t end = text.find(L"-->", i + 4);
            if (end == std::wstring_view::npos) return false;
            i = end + 3;
        } else if (text.compare(i, 2, L"<?") == 0) {
            const std::size_t end = text.find(L"?>", i + 2);
            if (end == std::wstring_view::npos) return false;
            i = end + 2;
        } else {
            return false;  // the root element
        }
    }
    return false;
}

std::vector<unsigned char> EncodeXmlText(std::wstring_view serialised, const XmlEncoding& encoding,
                                         std::wstring_view declaration) {
    std::wstring text;
    text.reserve(serialised.size() + 64);
    for (std::size_t i = 0; i < serialised.size(); ++i) {
        if (serialised[i] == L'\r' && i + 1 < serialised.size() && serialised[i + 1] == L'\n') continue;
        text.push_back(serialised[i]);
    }
    // The serialiser's declaration (it drops the encoding) gives way to the original.
    const std::wstring own = XmlDeclarationOf(text);
    if (!own.empty()) {
        std::size_t after = own.size();
        if (declaration.empty()) {
            while (after < text.size() && text[after] == L'\n') ++after;
        }
        text.replace(0, after, declaration);
    } else if (!declaration.empty()) {
        text.insert(0, std::wstring(declaration) + L"\n");
    }
    while (!text.empty() && text.back() == L'\n') text.pop_back();
    if (encoding.lastLine) text.push_back(L'\n');
    if (encoding.crlf) {
        std::wstring withCr;
        withCr.reserve(text.size() + text.size() / 16);
        for (wchar_t c : text) {
            if (c == L'\n') withCr.push_back(L'\r');
            withCr.push_back(c);
        }
        text = std::move(withCr);
    }
    std::vector<unsigned char> bytes;
    switch (encoding.kind) {
    case XmlEncoding::Utf8Bom: bytes = {0xEF, 0xBB, 0xBF}; [[fallthrough]];
    case XmlEncoding::Utf8: AppendUtf8(bytes, text); return bytes;
    case XmlEncoding::Utf16Le: bytes = {0xFF, 0xFE}; break;
    case XmlEncoding::Utf16Be: bytes = {0xFE, 0xFF}; break;
    case XmlEncoding::Latin1:
    case XmlEncoding::Windows1252:
        // A character the encoding lacks goes in as a character reference,
        // which any XML reader reads back as that character.
        for (std::size_t i = 0; i < text.size(); ++i) {
            const int b = SingleByte(text[i], encoding.kind);
            if (b >= 0) {
                bytes.push_back(static_cast<unsigned char>(b));
                continue;
            }
            std::uint32_t code = static_cast<std::uint32_t>(text[i]);
            if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
                code = 0x10000 + ((code - 0xD800) << 10) + (static_cast<std::uint32_t>(text[++i]) - 0xDC00);
            }
            for (const wchar_t c : Format(L"&#x%x;", code)) bytes.push_back(static_cast<unsigned char>(c));
        }
        return bytes;
    }
    for (wchar_t c : text) {
        const auto low = static_cast<unsigned char>(c & 0xFF), high = static_cast<unsigned char>((c >> 8) & 0xFF);
        if (encoding.kind == XmlEncoding::Utf16Le) {
            bytes.push_back(low);
            bytes.push_back(high);
        } else {
            bytes.push_back(high);
            bytes.push_back(low);
        }
    }
    return bytes;
}

std::wstring ContentHash(std::wstring_view xml) {
    std::uint64_t hash = 0xcbf29ce484222325ull;
    for (const wchar_t c : xml) {
        hash ^= static_cast<std::uint16_t>(c);
        hash *= 0x100000001b3ull;
    }
    return Format(L"%08x%08x", static_cast<unsigned>(hash >> 32), static_cast<unsigned>(hash & 0xFFFFFFFFu));
}

std::wstring EncodeXmlUndo(const std::vector<XmlUndoStep>& steps) {
    static const wchar_t* const kinds[] = {L"attr", L"text", L"remove", L"insert"};
    std::vector<PropertyMap> records;
    for (const XmlUndoStep& step : steps) {
        PropertyMap r;
        r.Set(L"k", kinds[step.kind]);
        r.Set(L"node", step.node);
        if (!step.name.empty()) r.Set(L"name", step.name);
        if (step.value) r.Set(L"val", *step.value);
        if (!step.xml.empty()) r.Set(L"xml", step.xml);
        if (step.index != 0) r.Set(L"i", step.index);
        if (!step.nodeName.empty()) r.Set(L"nn", step.nodeName);
        if (!step.hash.empty()) r.Set(L"h", step.hash);
        records.push_back(std::move(r));
    }
    return EncodeRecordList(records);
}

std::vector<XmlUndoStep> DecodeXmlUndo(std::wstring_view text) {
    static const wchar_t* const kinds[] = {L"attr", L"text", L"remove", L"insert"};
    std::vector<XmlUndoStep> steps;
    for (const PropertyMap& r : DecodeRecordList(text)) {
        XmlUndoStep step;
        const std::wstring kind = r.Get(L"k");
        for (int k = 0; k < 4; ++k) {
            if (kind == kinds[k]) step.kind = static_cast<XmlUndoStep::Kind>(k);
        }
        step.node = r.Get(L"node");
        step.name = r.Get(L"name");
        if (r.Contains(L"val")) step.value = r.Get(L"val");
        step.xml = r.Get(L"xml");
        step.index = r.GetInteger(L"i");
        step.nodeName = r.Get(L"nn");
        step.hash = r.Get(L"h");
        steps.push_back(std::move(step));
    }
    return steps;
}

std::wstring MergeXmlUndo(const std::wstring& ours, const std::optional<std::wstring>& heirs) {
    std::vector<XmlUndoStep> steps = DecodeXmlUndo(ours);
    if (heirs) {
        const std::vector<XmlUndoStep> later = DecodeXmlUndo(*heirs);
        steps.insert(steps.end(), later.begin(), later.end());
    }
    return EncodeXmlUndo(steps);
}

std::wstring EncodeXmlFileActionData(const XmlFileActionData& data) {
    std::vector<PropertyMap> files;
    for (const XmlFileItem& item : data.items) {
        PropertyMap r;
        r.Set(L"path", item.path);
        r.Set(L"bak", item.backup);
        if (item.undo) r.Set(L"undo", 1);
        r.Set(L"edits", EncodeEdits(item.edits));
        files.push_back(std::move(r));
    }
    std::vector<PropertyMap> records;
    for (const XmlRecordValue& record : data.records) {
        PropertyMap r;
        r.Set(L"id", record.id);
        if (record.text) r.Set(L"text", *record.text);
        records.push_back(std::move(r));
    }
    PropertyMap top;
    top.Set(L"files", EncodeRecordList(files));
    top.Set(L"pc", data.product);
    if (!records.empty()) top.Set(L"rec", EncodeRecordList(records));
    if (!data.handovers.empty()) top.Set(L"ho", EncodeRecordHandovers(data.handovers));
    return EncodeActionData(top);
}

XmlFileActionData DecodeXmlFileActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    XmlFileActionData data;
    for (const PropertyMap& r : DecodeRecordList(top.View(L"files"))) {
        data.items.push_back({r.Get(L"path"), r.Get(L"bak"), r.GetInteger(L"undo") != 0, DecodeEdits(r.View(L"edits"))});
    }
    data.product = top.Get(L"pc");
    for (const PropertyMap& r : DecodeRecordList(top.View(L"rec"))) {
        XmlRecordValue record{r.Get(L"id"), std::nullopt};
        if (r.Contains(L"text")) record.text = r.Get(L"text");
        data.records.push_back(std::move(record));
    }
    data.handovers = DecodeRecordHandovers(top.View(L"ho"));
    return data;
}

}  // namespace setup
