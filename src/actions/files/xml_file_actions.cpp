#include "actions/files/xml_file_actions.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "actions/files/xml_file_plan.h"
#include "runtime/exception.h"
#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/file_restore.h"
#include "services/file_write.h"
#include "services/path.h"
#include "services/record_heirs.h"
#include "services/record_store.h"
#include "services/xml_document.h"

namespace setup {

namespace {

using namespace xml_file;

constexpr wchar_t kTable[] = L"XmlFile";
constexpr wchar_t kQuery[] =
    L"SELECT `XmlFile`, `File`, `XPath`, `Action`, `Name`, `Value`, `Namespaces`, `Sequence`, `Attributes`, "
    L"`Component_`, `Condition` FROM `XmlFile`";
constexpr DWORD kLargestFile = 8 * 1024 * 1024;  // configuration files, not data

std::optional<std::vector<XmlFileRow>> ReadRows(const Session& session) {
    std::vector<XmlFileRow> rows;
    const bool exists = session.ActiveDatabase().ForEachRowOfTable(kTable, kQuery, [&](const Record& record) {
        XmlFileRow row;
        row.id = record.GetString(1);
        if (row.id.empty()) Throw(kFail, L"The id is empty in XmlFile table.");
        row.file = record.GetString(2);
        row.xpath = record.GetString(3);
        row.action = record.GetIntegerOr(4, -1);
        row.name = record.GetString(5);
        row.value = record.GetString(6);
        row.namespaces = record.GetString(7);
        row.sequence = record.GetIntegerOr(8, 0);
        row.attributes = record.GetIntegerOr(9, 0);
        row.component = record.GetString(10);
        if (row.component.empty()) Throw(kFail, L"The component is empty in XmlFile row '" + row.id + L"'.");
        row.condition = record.GetString(11);
        rows.push_back(std::move(row));
    });
    if (!exists) return std::nullopt;
    std::vector<std::size_t> literals;
    for (XmlFileRow& row : rows) {
        row.xpath = EscapeXPathPredicates(row.xpath);
        literals.push_back(static_cast<std::size_t>(std::count(row.xpath.begin(), row.xpath.end(), kXPathLiteralBegin)));
    }
    FormatRowTexts(session, rows, {&XmlFileRow::file, &XmlFileRow::xpath, &XmlFileRow::value});
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::optional<std::wstring> sealed = SealXPathLiterals(rows[i].xpath, literals[i]);
        if (!sealed) {
            Throw(kInvalidArgument, L"The XPath of xml edit '" + rows[i].id +
                                        L"' cannot be built: a property value in it holds the control character "
                                        L"U+001D or U+001E.");
        }
        rows[i].xpath = std::move(*sealed);
        rows[i].file = ResolvePath(rows[i].file);
    }
    for (const XmlFileRow& row : rows) {
        const std::wstring value = (row.attributes & Secret) ? L"***" : row.value;
        LogInfo(L"Configured xml edit %s, %s, %s, %d, %s, %s, %s, %d, %d, %s, %s.", row.id, row.file, row.xpath,
                row.action, row.name, value, row.namespaces, row.sequence, row.attributes, row.component,
                row.condition);
    }
    return rows;
}

class InstallerXmlFileMachine final : public XmlFileMachine {
public:
    std::wstring NewUuid() override { return CreateUuidString(); }
};

// --- Records of what the edits replaced ---

RecordStore Records(const std::wstring& product) { return RecordStore::ForProduct(L"XmlFile", product); }

std::optional<std::wstring> ReadRecord(const std::wstring& product, const std::wstring& id) {
    return Records(product).Read(id);
}

// Writes the record, or deletes it (and the keys left empty) when there is no text.
void WriteRecord(const std::wstring& product, const std::wstring& id, const std::optional<std::wstring>& text) {
    const RecordStore records = Records(product);
    if (!text) {
        records.Remove(id);
        return;
    }
    LogInfo(L"Record what xml edit '%s' replaced under '%s'.", id, records.Key());
    records.Write(id, *text);
}

// --- File bytes ---

std::vector<unsigned char> ReadBytes(const std::wstring& path) {
    FileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!file, L"Failed to read file '" + path + L"'.");
    const DWORD attributes = HandleAttributes(file.Get());
    ThrowLastErrorIf(attributes == INVALID_FILE_ATTRIBUTES, L"Failed to read file '" + path + L"'.");
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        Throw(HResultFromWin32(ERROR_CANT_ACCESS_FILE), L"Refused to edit '" + path + L"': it is a link (reparse point).");
    }
    LARGE_INTEGER size{};
    ThrowLastErrorIf(!::GetFileSizeEx(file.Get(), &size), L"Failed to read file '" + path + L"'.");
    if (size.QuadPart > kLargestFile) {
        Throw(kInvalidArgument, L"Refused to edit '" + path + L"': it holds " + std::to_wstring(size.QuadPart) +
                                    L" bytes, more than the " + std::to_wstring(kLargestFile) +
                                    L" an XML edit reads.");
    }
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    ThrowLastErrorIf(!bytes.empty() && (!::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read,
                                                    nullptr) || read != bytes.size()),
                     L"Failed to read file '" + path + L"'.");
    return bytes;
}

std::wstring CreatedMarker(const XmlFileItem& item) { return item.backup + L".new"; }

// --- Edits ---

std::wstring Selection(const XmlEdit& edit) { return SelectionNamespaces(edit.namespaces).value_or(L""); }

// A permanent row keeps no record, so a repair cannot know it made its
// elements before; the document can: when every element just added has an
// identical earlier sibling, the additions go again and the edit is skipped.
bool RepeatsAPermanentEdit(const XmlEdit& edit, const std::vector<XmlDocument::NodePtr>& added) {
    if (!(edit.attributes & Permanent)) return false;
    bool anyElement = false;
    for (const auto& node : added) {
        if (XmlDocument::NameOf(node).empty() || XmlDocument::NameOf(node)[0] == L'#') continue;  // text, comments
        anyElement = true;
        if (!XmlDocument::HasEarlierTwin(node)) return false;
    }
    if (!anyElement) return false;
    const std::wstring parent = XmlDocument::PositionOf(XmlDocument::Parent(added.front()));
    for (auto it = added.rbegin(); it != added.rend(); ++it) XmlDocument::Remove(*it, true);
    LogInfo(L"Skip xml edit '%s' under '%s': a permanent row made it before (0x1).", edit.id, parent);
    return true;
}

// The steps that take back the nodes an edit made: position, name and content.
std::vector<XmlUndoStep> Made(const std::vector<XmlDocument::NodePtr>& nodes) {
    const std::vector<std::wstring> positions = XmlDocument::PositionsOf(nodes);
    std::vector<XmlUndoStep> steps;
    steps.reserve(nodes.size());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        steps.push_back({XmlUndoStep::RemoveNode, positions[i], L"", std::nullopt, L"", 0,
                         XmlDocument::NameOf(nodes[i]), ContentHash(XmlDocument::XmlOf(nodes[i]))});
    }
    return steps;
}

// True when one of the positions lies inside another: removing the outer
// node first takes the inner one with it, so positions must be counted one by one.
bool AnyNested(const std::vector<std::wstring>& positions) {
    const std::set<std::wstring> all(positions.begin(), positions.end());
    for (const std::wstring& position : positions) {
        for (std::size_t slash = position.find(L'/', 1); slash != std::wstring::npos;
             slash = position.find(L'/', slash + 1)) {
            if (all.count(position.substr(0, slash))) return true;
        }
    }
    return false;
}

// Deletes the nodes, returning the steps that put them back. Positions are
// found for all of them at once and adjusted for the earlier siblings already
// gone, unless one node lies inside another.
std::vector<XmlUndoStep> DeleteNodes(const std::vector<XmlDocument::NodePtr>& nodes) {
    std::vector<XmlUndoStep> steps;
    const std::vector<std::wstring> positions = XmlDocument::PositionsOf(nodes);
    const bool batch = !AnyNested(positions);
    std::map<std::wstring, std::size_t> removedUnder;  // by the parent's position
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const XmlDocument::NodePtr parent = XmlDocument::Parent(nodes[i]);
        std::wstring position;
        const std::size_t slash = positions[i].rfind(L'/');
        if (batch && slash != std::wstring::npos && slash > 0 && positions[i].compare(slash, 3, L"/*[") == 0) {
            position = positions[i].substr(0, slash);
            const std::size_t number = std::stoul(positions[i].substr(slash + 3)) - removedUnder[position]++;
            XmlDocument::SetPosition(nodes[i], position + L"/*[" + std::to_wstring(number) + L"]");
        } else {
            position = XmlDocument::PositionOf(parent);
        }
        auto [xml, index] = XmlDocument::Remove(nodes[i], true);
        steps.push_back({XmlUndoStep::InsertNode, position, L"", std::nullopt, std::move(xml), index,
                         XmlDocument::NameOf(parent), L""});
    }
    return steps;
}

// Makes one edit and returns the steps that take it back.
std::vector<XmlUndoStep> Apply(XmlDocument& document, const XmlEdit& edit, const std::wstring& file) {
    std::vector<XmlDocument::NodePtr> nodes = document.Select(edit.xpath, Selection(edit));
    const std::wstring value = LoggedValue(edit, edit.value);
    if (nodes.empty()) {
        if (edit.action == DeleteAttribute || edit.action == DeleteElements) {
            LogInfo(L"Nothing to delete for '%s': '%s' matches nothing in '%s'.", edit.id, edit.xpath, file);
            return {};
        }
        if (edit.attributes & SkipMissing) {
            LogInfo(L"Skip xml edit '%s': '%s' matches nothing in '%s' (0x8).", edit.id, edit.xpath, file);
            return {};
        }
        Throw(HResultFromWin32(ERROR_NOT_FOUND),
              L"The XPath '" + edit.xpath + L"' of xml edit '" + edit.id + L"' matches nothing in '" + file + L"'.");
    }
    if (edit.action == SetValue) nodes.resize(1);
    const auto count = static_cast<unsigned>(nodes.size());
    std::vector<XmlUndoStep> steps;
    const bool secret = (edit.attributes & Secret) != 0;
    // Only these edits keep a record: the others need no node positions.
    const bool recorded = !(edit.attributes & (Permanent | OnUninstall));
    switch (edit.action) {
    case SetValue:
    case SetEveryValue:
        if (!edit.name.empty()) {
            LogInfo(L"Set attribute '%s' of %u node(s) matching '%s' in '%s' to '%s'.", edit.name, count, edit.xpath,
                    file, value);
        } else {
            LogInfo(L"Set the text of %u node(s) matching '%s' in '%s' to '%s'.", count, edit.xpath, file, value);
        }
        {
            // A secret's old value is kept nowhere (the record is readable by
            // every user): uninstall leaves the value as it is.
            const bool keep = recorded && !secret;
            const std::vector<std::wstring> positions =
                keep ? XmlDocument::PositionsOf(nodes) : std::vector<std::wstring>();
            for (std::size_t i = 0; i < nodes.size(); ++i) {
                const auto& node = nodes[i];
                XmlUndoStep step;
                if (keep) {
                    step = {edit.name.empty() ? XmlUndoStep::Text : XmlUndoStep::Attribute, positions[i], edit.name,
                            std::nullopt, L"", 0, XmlDocument::NameOf(node), L""};
                    step.value = edit.name.empty() ? std::optional<std::wstring>(XmlDocument::Text(node))
                                                   : XmlDocument::Attribute(node, edit.name);
                }
                if (edit.name.empty()) XmlDocument::SetText(node, edit.value);
                else XmlDocument::SetAttribute(node, edit.name, edit.value);
                if (keep) steps.push_back(std::move(step));
            }
        }
        break;
    case CreateElement: {
        LogInfo(L"Create element '%s' under %u node(s) matching '%s' in '%s'.", edit.name, count, edit.xpath, file);
        std::vector<XmlDocument::NodePtr> made;
        for (const auto& node : nodes) {
            auto created = document.AppendElement(node, edit.name, edit.value, edit.namespaces);
            if (RepeatsAPermanentEdit(edit, {created})) continue;
            if (recorded) made.push_back(std::move(created));
        }
        // Appending under one match moves no other match nor what was made under it.
        steps = Made(made);
        break;
    }
    case DeleteAttribute: {
        LogInfo(L"Delete attribute '%s' of %u node(s) matching '%s' in '%s'.", edit.name, count, edit.xpath, file);
        const std::vector<std::wstring> positions =
            !secret && recorded ? XmlDocument::PositionsOf(nodes) : std::vector<std::wstring>();
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            const std::optional<std::wstring> old = XmlDocument::Attribute(nodes[i], edit.name);
            if (!old) continue;
            XmlDocument::RemoveAttribute(nodes[i], edit.name);
            if (!secret && recorded) {
                steps.push_back({XmlUndoStep::Attribute, positions[i], edit.name, old, L"", 0,
                                 XmlDocument::NameOf(nodes[i]), L""});
            }
        }
        break;
    }
    case DeleteElements:
        LogInfo(L"Delete %u node(s) matching '%s' in '%s'.", count, edit.xpath, file);
        steps = DeleteNodes(nodes);
        break;
    case AppendFragment: {
        LogInfo(L"Append a fragment under %u node(s) matching '%s' in '%s'.", count, edit.xpath, file);
        std::vector<XmlDocument::NodePtr> made;
        for (const auto& node : nodes) {
            std::vector<XmlDocument::NodePtr> added = document.AppendFragment(node, edit.value, edit.namespaces);
            if (RepeatsAPermanentEdit(edit, added) || !recorded) continue;
            made.insert(made.end(), added.begin(), added.end());
        }
        steps = Made(made);
        break;
    }
    default: break;
    }
    return steps;
}

// Takes one row's recorded edit back, latest step first.
void TakeBack(XmlDocument& document, const XmlEdit& edit, const std::vector<XmlUndoStep>& steps,
              const std::wstring& file) {
    LogInfo(L"Take back xml edit '%s' in '%s': %u step(s).", edit.id, file, static_cast<unsigned>(steps.size()));
    for (auto it = steps.rbegin(); it != steps.rend(); ++it) {
        const XmlUndoStep& step = *it;
        const XmlDocument::NodePtr node = document.AtPosition(step.node);
        if (!node) {
            LogInfo(L"The node '%s' of '%s' is gone: that step of '%s' is passed over.", step.node, file, edit.id);
            continue;
        }
        // Positions move when earlier siblings go: act only on the node the edit made or changed.
        if (!step.nodeName.empty() && XmlDocument::NameOf(node) != step.nodeName) {
            LogInfo(L"Skip a step of xml edit '%s': the node at '%s' of '%s' is now '%s', not '%s'.", edit.id,
                    step.node, file, XmlDocument::NameOf(node), step.nodeName);
            continue;
        }
        if (!step.hash.empty() && ContentHash(XmlDocument::XmlOf(node)) != step.hash) {
            LogInfo(L"Skip a step of xml edit '%s': the node at '%s' of '%s' is no longer the one it made.", edit.id,
                    step.node, file);
            continue;
        }
        switch (step.kind) {
        case XmlUndoStep::Attribute:
            if (step.value) {
                XmlDocument::SetAttribute(node, step.name, *step.value);
            } else {
                XmlDocument::RemoveAttribute(node, step.name);
            }
            break;
        case XmlUndoStep::Text: XmlDocument::SetText(node, step.value.value_or(L"")); break;
        case XmlUndoStep::RemoveNode: XmlDocument::Remove(node, false); break;
        case XmlUndoStep::InsertNode: document.InsertFragment(node, step.index, step.xml); break;
        }
    }
}

// The text of a file a row creates: its root element, with the row's namespaces.
std::wstring NewDocumentText(const XmlFileItem& item) {
    for (const XmlEdit& edit : item.edits) {
        if (!(edit.attributes & CreateFile)) continue;
        const std::wstring root = RootElementOf(edit.xpath);
        if (root.empty()) {
            Throw(kInvalidArgument, L"The xml edit '" + edit.id + L"' creates '" + item.path +
                                        L"', but its XPath does not begin with the root element's name.");
        }
        std::wstring declarations = Selection(edit);
        if (!declarations.empty()) declarations.insert(0, L" ");
        return L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<" + root + declarations + L"/>\n";
    }
    return {};
}

bool AnyEdit(const XmlFileItem& item, int bit) {
    for (const XmlEdit& edit : item.edits) {
        if (edit.attributes & bit) return true;
    }
    return false;
}

void ForgetRecords(const XmlFileItem& item, const std::wstring& product) {
    for (const XmlEdit& edit : item.edits) WriteRecord(product, edit.id, std::nullopt);
}

void EditFile(const XmlFileItem& item, const std::wstring& product) {
    if (item.undo && std::none_of(item.edits.begin(), item.edits.end(),
                                  [&](const XmlEdit& edit) { return ReadRecord(product, edit.id).has_value(); })) {
        // The install never edited the file (a false condition, say): nothing to take back, nothing to open.
        LogInfo(L"Nothing to take back in '%s': no edit of it was recorded.", item.path);
        return;
    }
    CheckWritablePath(item.path);
    CheckNotLink(item.path);
    if (!FileExists(item.path)) {
        const std::wstring text = item.undo ? std::wstring() : NewDocumentText(item);
        if (text.empty()) {
            if (!item.undo && !AnyEdit(item, SkipMissing)) {
                Throw(HResultFromWin32(ERROR_FILE_NOT_FOUND), L"The xml file '" + item.path + L"' does not exist.");
            }
            LogInfo(L"Skip the xml file '%s': it does not exist.", item.path);
            if (item.undo) ForgetRecords(item, product);
            return;
        }
        // The marker tells rollback that this file is new.
        CreateFolders(DirectoryOf(item.path));
        FileHandle marker(::CreateFileW(CreatedMarker(item).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
        ThrowLastErrorIf(!marker, L"Failed to write file '" + CreatedMarker(item) + L"'.");
        LogInfo(L"Create xml file '%s'.", item.path);
        WriteFileBytes(item.path, EncodeXmlText(text, XmlEncoding{XmlEncoding::Utf8, true, true}, XmlDeclarationOf(text)));
    } else {
        // A file the library could not write back in its own encoding is
        // refused before anything is backed up or changed.
        try {
            DetectXmlEncoding(ReadBytes(item.path));
        } catch (const Exception& e) {
            Throw(e.Code(), L"Refused to edit '" + item.path + L"': " + e.Message());
        }
        LogInfo(L"Backing up file '%s' -> '%s'.", item.path, item.backup);
        CopyToNewFile(item.path, item.backup);
    }

    const std::vector<unsigned char> original = ReadBytes(item.path);
    const XmlEncoding encoding = DetectXmlEncoding(original);
    const std::wstring text = DecodeXmlText(original, encoding);
    if (DeclaresDocumentType(text)) {
        Throw(kInvalidArgument, L"Refused to edit '" + item.path + L"': it declares a document type (DTD).");
    }
    XmlDocument document;
    try {
        document.Load(text);
    } catch (const Exception& e) {
        Throw(e.Code(), L"Refused to edit '" + item.path + L"': " + e.Message() + L".");
    }
    std::vector<std::pair<const XmlEdit*, std::vector<XmlUndoStep>>> records;
    for (const XmlEdit& edit : item.edits) {
        try {
            if (item.undo) {
                const std::optional<std::wstring> record = ReadRecord(product, edit.id);
                if (!record) {
                    LogInfo(L"Nothing recorded for xml edit '%s'.", edit.id);
                    continue;
                }
                TakeBack(document, edit, DecodeXmlUndo(*record), item.path);
            } else if ((edit.action == CreateElement || edit.action == AppendFragment) &&
                       ReadRecord(product, edit.id)) {
                // A repair: the element is there from the installation, which
                // recorded it; adding it again would double it.
                LogInfo(L"Skip xml edit '%s': the installation made it before (its record is kept).", edit.id);
            } else {
                records.emplace_back(&edit, Apply(document, edit, item.path));
            }
        } catch (const Exception& e) {
            Throw(e.Code(), L"Failed xml edit '" + edit.id + L"' of '" + item.path + L"': " + e.Message());
        }
    }
    if (item.undo && AnyEdit(item, CreateFile) && document.RootIsEmpty()) {
        // The file was made for the edits, and nothing else is in it.
        LogInfo(L"Delete file '%s': the edits it was created for are taken back.", item.path);
        // The file itself goes aside under its backup's name (the copy made
        // above goes first): rollback puts back the very file, commit deletes it.
        RemoveBackupFile(item.backup);
        ThrowLastErrorIf(!::MoveFileExW(item.path.c_str(), item.backup.c_str(), 0),
                         L"Failed to remove file '" + item.path + L"'.");
        ForgetRecords(item, product);
        return;
    }
    const std::vector<unsigned char> bytes = EncodeXmlText(document.Xml(), encoding, XmlDeclarationOf(text));
    if (bytes == original) {
        LogInfo(L"The xml file '%s' is unchanged.", item.path);
    } else {
        LogInfo(L"Write to file '%s'.", item.path);
        WriteFileBytes(item.path, bytes);
    }
    if (AnyEdit(item, KeepTime) && FileExists(item.backup)) CopyFileTime(item.backup, item.path);
    if (item.undo) ForgetRecords(item, product);
    for (const auto& [edit, steps] : records) {
        // An earlier installation's record holds the values from before the
        // product: a repair keeps it.
        if (steps.empty() || (edit->attributes & (Permanent | OnUninstall)) || ReadRecord(product, edit->id)) continue;
        WriteRecord(product, edit->id, EncodeXmlUndo(steps));
    }
}

// The installer's log lists every property at its end, the data of the
// scheduled actions among them: with a secret value in it, their names join
// MsiHiddenProperties.
void HideSecretData(const Session& session, const std::vector<XmlFileItem>& items) {
    if (std::none_of(items.begin(), items.end(), [](const XmlFileItem& item) { return AnyEdit(item, Secret); })) {
        return;
    }
    HideActionData(session, {L"InstallXmlFilesRollback", L"InstallXmlFilesDeferred", L"InstallXmlFilesCommit"});
}

// An XPath that does not parse, or that uses a prefix its row does not
// declare, fails the immediate action before anything is backed up or
// changed: the MSXML that edits the files reads it here, over an empty document.
void CheckSelections(const std::vector<XmlFileItem>& items) {
    std::optional<XmlDocument> document;
    for (const XmlFileItem& item : items) {
        if (item.undo) continue;
        for (const XmlEdit& edit : item.edits) {
            if (!document) {
                document.emplace();
                document->Load(L"<check/>");
            }
            try {
                document->Select(edit.xpath, Selection(edit));
            } catch (const Exception& e) {
                Throw(e.Code(), L"Failed xml edit '" + edit.id + L"' of '" + item.path + L"': " + e.Message());
            }
        }
    }
}

void Plan(Session& session, bool uninstalling) {
    Wow64FsRedirectionGuard redirection;
    std::optional<std::vector<XmlFileRow>> rows = ReadRows(session);
    if (!rows) return;
    SessionComponentStates states(session);
    InstallerXmlFileMachine machine;
    ProgramLogSink log;
    XmlFileActionData data;
    if (uninstalling) {
        // Records that pass to another product are not taken back here.
        std::vector<RecordRow> recorded;
        for (const XmlFileRow& row : *rows) recorded.push_back({row.id, row.component});
        InstallerRecordHeirs heirs(session, L"XmlFile");
        data.handovers = PlanRecordHandovers(recorded, states, ProductRemovalOf(session), heirs, L"xml edit", log);
        std::erase_if(*rows, [&](const XmlFileRow& row) {
            return std::any_of(data.handovers.begin(), data.handovers.end(),
                               [&](const RecordHandover& handover) { return handover.id == row.id; });
        });
    }
    data.items = PlanXmlFiles(*rows, states, uninstalling, machine, log);
    CheckSelections(data.items);
    if (data.items.empty() && data.handovers.empty()) {
        LogNothingToSchedule(rows->size(), L"XmlFile", uninstalling ? L"removed" : L"installed or reinstalled");
        return;
    }
    data.product = session.GetProperty(L"ProductCode");
    HideSecretData(session, data.items);
    XmlFileActionData rollback = data;
    for (const XmlFileItem& item : data.items) {
        for (const XmlEdit& edit : item.edits) rollback.records.push_back({edit.id, ReadRecord(data.product, edit.id)});
    }
    // Rollback and commit need the files and their copies, not the edits: the
    // installer carries (and Wine logs) every action's data, so each copy of
    // the edits is paid for by every row.
    XmlFileActionData commit = data;
    commit.handovers.clear();
    for (XmlFileActionData* copy : {&rollback, &commit}) {
        for (XmlFileItem& item : copy->items) item.edits.clear();
    }
    session.ScheduleDeferred(L"InstallXmlFilesRollback", EncodeXmlFileActionData(rollback));
    session.ScheduleDeferred(L"InstallXmlFilesDeferred", EncodeXmlFileActionData(data));
    session.ScheduleDeferred(L"InstallXmlFilesCommit", EncodeXmlFileActionData(commit));
}

}  // namespace

void InstallXmlFiles(Session& session) { Plan(session, false); }

void UninstallXmlFiles(Session& session) { Plan(session, true); }

void InstallXmlFilesDeferred(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const XmlFileActionData data = DecodeXmlFileActionData(session.CustomActionData());
    for (const XmlFileItem& item : data.items) EditFile(item, data.product);
    CarryOutHandovers(L"XmlFile", data.product, data.handovers, &MergeXmlUndo);
}

void InstallXmlFilesRollback(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const XmlFileActionData data = DecodeXmlFileActionData(session.CustomActionData());
    for (auto it = data.items.rbegin(); it != data.items.rend(); ++it) {
        const XmlFileItem& item = *it;
        if (FileExists(item.backup)) {
            Leniently([&] { RestoreFileFromBackup(item.path, item.backup); });
        } else if (FileExists(CreatedMarker(item))) {
            LogInfo(L"Delete file '%s'.", item.path);
            Leniently([&] { RemoveFileWithFallback(item.path, true); });
        }
        if (FileExists(CreatedMarker(item))) Leniently([&] { RemoveBackupFile(CreatedMarker(item)); });
    }
    for (const XmlRecordValue& record : data.records) {
        Leniently([&] { WriteRecord(data.product, record.id, record.text); });
    }
    RollbackHandovers(L"XmlFile", data.product, data.handovers);
}

void InstallXmlFilesCommit(Session& session) {
    Wow64FsRedirectionGuard redirection;
    const XmlFileActionData data = DecodeXmlFileActionData(session.CustomActionData());
    for (const XmlFileItem& item : data.items) {
        for (const std::wstring& file : {item.backup, CreatedMarker(item)}) {
            if (!FileExists(file)) continue;
            LogInfo(L"Cleanup file '%s'.", file);
            Leniently([&] { RemoveBackupFile(file); });
        }
    }
}

}  // namespace setup
