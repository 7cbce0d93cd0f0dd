#include "services/pending_rename_list.h"

#include <cwctype>

#include "runtime/action_data.h"

namespace setup {

namespace {

constexpr std::wstring_view kNtPrefix = L"\\??\\";

}  // namespace

std::wstring AddNtPrefix(std::wstring_view path) {
    if (path.empty()) return std::wstring();
    std::wstring prefixed(kNtPrefix);
    prefixed.append(path);
    return prefixed;
}

std::wstring RemoveNtPrefix(std::wstring_view path) {
    const std::size_t at = path.find(kNtPrefix);
    return std::wstring(at == std::wstring_view::npos ? path : path.substr(at + kNtPrefix.size()));
}

std::optional<PendingRenameList> ParsePendingRenames(std::wstring_view raw) {
    PendingRenameList list;
    if (raw.empty() || raw == std::wstring_view(L"\0", 1)) return list;
    // Without the list's closing NUL, every string must end in its own NUL.
    if (raw.size() < 2 || raw[raw.size() - 1] != L'\0' || raw[raw.size() - 2] != L'\0') return std::nullopt;
    const std::wstring_view body = raw.substr(0, raw.size() - 1);
    std::vector<std::wstring_view> strings;
    for (std::size_t pos = 0; pos < body.size();) {
        const std::size_t end = body.find(L'\0', pos);
        strings.push_back(body.substr(pos, end - pos));
        pos = end + 1;
    }
    if (strings.size() % 2 != 0) return std::nullopt;
    for (std::size_t i = 0; i < strings.size(); i += 2) {
        list.push_back({std::wstring(strings[i]), std::wstring(strings[i + 1])});
    }
    return list;
}

std::wstring SerializePendingRenames(const PendingRenameList& list) {
    std::wstring raw;
    for (const PendingRename& entry : list) {
        raw.append(entry.source).push_back(L'\0');
        raw.append(entry.target).push_back(L'\0');
    }
    if (!list.empty()) raw.push_back(L'\0');
    return raw;
}

std::wstring EncodePendingRenames(const PendingRenameList& list) {
    std::vector<PropertyMap> records;
    records.reserve(list.size());
    for (const PendingRename& entry : list) {
        PropertyMap record;
        record.Set(L"src", entry.source);
        record.Set(L"dst", entry.target);
        records.push_back(std::move(record));
    }
    return EncodeRecordList(records);
}

PendingRenameList DecodePendingRenames(std::wstring_view text) {
    PendingRenameList list;
    for (const PropertyMap& record : DecodeRecordList(text)) list.push_back({record.Get(L"src"), record.Get(L"dst")});
    return list;
}

PendingRenameRollback PlanPendingRenameRollback(const PendingRenameSnapshot& snapshot,
                                                const PendingRenameList& current,
                                                const std::set<std::wstring>& rollbackPaths, LogSink& log,
                                                const std::set<std::wstring>& keptSources) {
    PendingRenameRollback plan;
    const std::size_t before = snapshot.entries.size();
    if (before > current.size()) {
        plan.kept = current;
        return plan;
    }
    plan.kept.assign(current.begin(), current.begin() + static_cast<std::ptrdiff_t>(before));
    // Our entries are found by exact match against the prefixed paths.
    std::set<std::wstring> prefixed;
    for (const std::wstring& path : rollbackPaths) {
        if (!path.empty()) prefixed.insert(AddNtPrefix(path));
    }
    for (std::size_t i = before; i < current.size(); ++i) {
        const PendingRename& entry = current[i];
        const bool onto = prefixed.count(entry.target) != 0;
        // Wine's MoveFileExW, appending to a value of 0 bytes, writes its first
        // entry one character early: "??\C:\..." for "\??\C:\...". That entry is ours too.
        const bool mangled = i == before && entry.source.rfind(L"??\\", 0) == 0 && prefixed.count(L"\\" + entry.source) != 0;
        const bool deletion = entry.target.empty() && (prefixed.count(entry.source) != 0 || mangled);
        if (!onto && !deletion) {
            plan.kept.push_back(entry);
            continue;
        }
        const std::wstring source = RemoveNtPrefix(entry.source);
        log.Info(L"Rollback pending rename '%s' -> '%s'.", source, RemoveNtPrefix(entry.target));
        if (onto && keptSources.count(source) == 0) {
            log.Info(L"Need to delete rollback file '%s'.", source);
            plan.deletions.push_back(source);
        }
    }
    if (plan.kept.size() == current.size()) return plan;
    // Put back what was there: no value when there was none and nothing else is left.
    plan.write = plan.kept.empty() && !snapshot.exists ? PendingRenameWrite::Remove : PendingRenameWrite::Write;
    return plan;
}

namespace {

bool SamePath(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::towlower(a[i]) != std::towlower(b[i])) return false;
    }
    return true;
}

}  // namespace

bool HasPendingRename(const PendingRenameList& list, std::wstring_view source, std::wstring_view destination) {
    for (const PendingRename& entry : list) {
        std::wstring target = entry.target;
        if (!target.empty() && target.front() == L'!') target.erase(0, 1);
        if (SamePath(RemoveNtPrefix(entry.source), source) && !target.empty() &&
            SamePath(RemoveNtPrefix(target), destination)) {
            return true;
        }
    }
    return false;
}

}  // namespace setup
