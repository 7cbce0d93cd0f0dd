#pragma once
// Planning of the TextFile table: which rows count, what each target file will
// contain, whether it needs a backup, and how the work travels to the deferred,
// rollback and commit actions. Plain functions over plain data; the actions
// feed them the rows and the machine's answers.

#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/log_sink.h"
#include "runtime/property_map.h"
#include "services/pending_rename_list.h"

namespace setup {

// One row as read from the package: File and Text as the table holds them
// (the planner formats them for the rows it keeps).
struct TextFileRow {
    std::wstring id;         // TextFile
    std::wstring file;       // target path, unformatted
    std::wstring text;       // the line, unformatted
    std::wstring component;  // Component_
    std::wstring condition;  // may be empty
};

inline constexpr int kTextFileReplaceAtReboot = 1;  // `atr` bit: write at the next restart

// One target file.
struct TextFileItem {
    std::wstring path;
    std::wstring rbf;      // backup path; empty when the target did not exist as a file
    std::wstring content;  // the file's whole new content
    int atr = 0;
    bool operator==(const TextFileItem&) const = default;
};

// What the planner asks of the machine and the session.
class TextFileMachine {
public:
    virtual ~TextFileMachine() = default;
    virtual bool FileExists(const std::wstring& path) = 0;  // a file, not a directory
    virtual std::wstring NewUuid() = 0;                     // UuidToStringW form
    virtual std::wstring LockFilesOnUpdate() = 0;           // the property's value
    // The installer's formatting of each text, in order.
    virtual std::vector<std::wstring> FormatAll(const std::vector<std::wstring>& texts) = 0;
};

// The install decision for one row, with the text-line wording.
Decision DecideTextLine(ComponentStates& states, const TextFileRow& row, LogSink& log);

// The rows that count, grouped per target (ordinal, case-sensitive order), with
// their content, backup names and attributes; logs every step.
std::vector<TextFileItem> PlanTextFiles(const std::vector<TextFileRow>& rows, ComponentStates& states,
                                        TextFileMachine& machine, LogSink& log);

// One target with its content: a backup name beside it when it exists, and
// replacement at restart under LOCKFILESONUPDATE=1.
TextFileItem NewTextFileItem(const std::wstring& path, std::wstring content, TextFileMachine& machine);

// The content of one target: the first row's text as it is, then each later
// row's text followed by a line feed.
void AppendTextLine(std::wstring& content, std::wstring_view text, bool first);

// `text` without any '[' or ']' (the installer log would read them as property references).
std::wstring WithoutBrackets(std::wstring_view text);

// Action data shared by the three scheduled actions: "files" (the items),
// "pfr" and "pfe" (the restart-time rename list as it stood at scheduling
// time, and whether the value existed; taken only when an item replaces its
// file at restart, since only those add to the list).
struct TextFileActionData {
    std::vector<TextFileItem> items;
    PendingRenameSnapshot snapshot;
};

// True when some item is replaced at restart (and so needs the rename list).
bool NeedsPendingRenames(const std::vector<TextFileItem>& items);
std::wstring EncodeTextFileActionData(const TextFileActionData& data);
TextFileActionData DecodeTextFileActionData(std::wstring_view text);

}  // namespace setup
