#include "actions/files/text_file_plan.h"

#include <algorithm>
#include <map>

#include "runtime/action_data.h"
#include "runtime/exception.h"
#include "services/path.h"

namespace setup {

Decision DecideTextLine(ComponentStates& states, const TextFileRow& row, LogSink& log) {
    auto text = [&row](const Decision& d) -> std::wstring {
        switch (d.verdict) {
        case Verdict::NullAction:
            return Format(L"Skip install text line '%s' for null-action component '%s'.", row.id, row.component);
        case Verdict::ConditionFailed:
            return Format(L"Skip install text line '%s', '%s'. Condition is '%d'.", row.id, row.condition, d.condition);
        case Verdict::Chosen:
            return Format(L"Need to install text line '%s'. Component '%s' to do %d.", row.id, row.component,
                          static_cast<int>(d.task));
        default:
            return Format(L"Skip install text line '%s'. Component '%s' is not marked to install.", row.id,
                          row.component);
        }
    };
    return DecideRow(states, kStandardInstall, row.component, row.condition, text, log);
}

void AppendTextLine(std::wstring& content, std::wstring_view text, bool first) {
    content.append(text);
    if (!first) content.push_back(L'\n');
}

std::wstring WithoutBrackets(std::wstring_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        if (c != L'[' && c != L']') out.push_back(c);
    }
    return out;
}

TextFileItem NewTextFileItem(const std::wstring& path, std::wstring content, TextFileMachine& machine) {
    TextFileItem item;
    item.path = path;
    if (machine.FileExists(path)) item.rbf = JoinPath(DirectoryOf(path), machine.NewUuid());
    if (machine.LockFilesOnUpdate() == L"1") item.atr |= kTextFileReplaceAtReboot;
    item.content = std::move(content);
    return item;
}

std::vector<TextFileItem> PlanTextFiles(const std::vector<TextFileRow>& rows, ComponentStates& states,
                                        TextFileMachine& machine, LogSink& log) {
    // std::less on wide strings compares code units: ordinal and case-sensitive.
    std::map<std::wstring, std::wstring> contents;
    std::vector<const TextFileRow*> chosen;
    std::vector<std::wstring> texts;  // file, then text, of each chosen row
    for (const TextFileRow& row : rows) {
        if (!DecideTextLine(states, row, log).Chosen()) continue;
        chosen.push_back(&row);
        texts.push_back(row.file);
        texts.push_back(row.text);
    }
    // Formatted only now, all together: a row that is skipped costs no formatting.
    texts = machine.FormatAll(texts);
    for (std::size_t i = 0; i < chosen.size(); ++i) {
        const TextFileRow& row = *chosen[i];
        // Every later step, and the check, sees the path as Windows resolves it.
        const std::wstring file = PathProblem(texts[2 * i]).empty() ? NormalizePath(texts[2 * i]) : texts[2 * i];
        // Caught here, naming the row, before anything is scheduled.
        if (file.empty()) throw Exception(kFail, L"The file is empty in " + row.id);
        const std::wstring problem = PathProblem(file);
        if (!problem.empty()) {
            throw Exception(kInvalidArgument, L"The file '" + file + L"' of text line '" + row.id +
                                                  L"' is refused: " + problem + L".");
        }
        auto [it, first] = contents.try_emplace(file);
        AppendTextLine(it->second, texts[2 * i + 1], first);
    }
    std::vector<TextFileItem> items;
    items.reserve(contents.size());
    for (auto& [path, content] : contents) {
        log.Info(L"Configuring text file %s.", path);
        TextFileItem item = NewTextFileItem(path, std::move(content), machine);
        // In every log, not only a verbose one; hidden properties' values show as "***".
        log.Info(L"Generated text file content:\n%s", WithoutBrackets(item.content));
        log.Info(L"The text file %s (%d) was successfully configured.", item.path, item.atr);
        items.push_back(std::move(item));
    }
    return items;
}

bool NeedsPendingRenames(const std::vector<TextFileItem>& items) {
    for (const TextFileItem& item : items) {
        if (item.atr & kTextFileReplaceAtReboot) return true;
    }
    return false;
}

std::wstring EncodeTextFileActionData(const TextFileActionData& data) {
    std::vector<PropertyMap> records;
    records.reserve(data.items.size());
    for (const TextFileItem& item : data.items) {
        PropertyMap record;
        record.Set(L"path", item.path);
        record.Set(L"rbf", item.rbf);
        record.Set(L"content", item.content);
        record.Set(L"atr", item.atr);
        records.push_back(std::move(record));
    }
    PropertyMap top;
    top.Set(L"files", EncodeRecordList(records));
    top.Set(L"pfr", EncodePendingRenames(data.snapshot.entries));
    top.Set(L"pfe", data.snapshot.exists ? 1 : 0);
    return EncodeActionData(top);
}

TextFileActionData DecodeTextFileActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    TextFileActionData data;
    for (const PropertyMap& record : DecodeRecordList(top.View(L"files"))) {
        data.items.push_back({record.Get(L"path"), record.Get(L"rbf"), record.Get(L"content"),
                              record.GetInteger(L"atr")});
    }
    data.snapshot.entries = DecodePendingRenames(top.View(L"pfr"));
    data.snapshot.exists = top.GetInteger(L"pfe") != 0;
    return data;
}

}  // namespace setup
