#include "services/pending_rename_list.h"

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

PendingRenameList ParsePendingRenames(std::wstring_view raw) {
    PendingRenameList list;
    const std::size_t n = raw.size();
    if (n < 2 || raw[n - 1] != L'\0' || raw[n - 2] != L'\0') return list;
    // The data ends in two NULs, so a source read from below n - 2 ends by n - 2
    // and its target by n - 1: no read runs past the end.
    auto next = [&](std::size_t& pos) {
        const std::size_t end = raw.find(L'\0', pos);
        const std::wstring_view piece = raw.substr(pos, end - pos);
        pos = end + 1;
        return RemoveNtPrefix(piece);
    };
    std::size_t pos = 0;
    while (pos < n - 2) {
        PendingRename entry;
        entry.source = next(pos);
        entry.target = next(pos);
        list.push_back(std::move(entry));
    }
    return list;
}

std::wstring SerializePendingRenames(const PendingRenameList& list) {
    std::wstring raw;
    for (const PendingRename& entry : list) {
        raw.append(AddNtPrefix(entry.source)).push_back(L'\0');
        raw.append(AddNtPrefix(entry.target)).push_back(L'\0');
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

PendingRenameRollback PlanPendingRenameRollback(const PendingRenameList& snapshot, const PendingRenameList& current,
                                                const std::set<std::wstring>& rollbackPaths, LogSink& log) {
    PendingRenameRollback plan;
    if (snapshot.size() > current.size()) {
        plan.kept = current;
        return plan;
    }
    plan.kept.assign(current.begin(), current.begin() + static_cast<std::ptrdiff_t>(snapshot.size()));
    for (std::size_t i = snapshot.size(); i < current.size(); ++i) {
        const PendingRename& entry = current[i];
        const bool targetMatches = rollbackPaths.count(entry.target) != 0;
        if (!targetMatches && rollbackPaths.count(entry.source) == 0) {
            plan.kept.push_back(entry);
            continue;
        }
        log.Info(L"Rollback pending rename '%s' -> '%s'.", entry.source, entry.target);
        if (targetMatches) {
            log.Info(L"Need to delete rollback file '%s'.", entry.source);
            plan.deletions.push_back(entry.source);
        }
    }
    plan.rewrite = plan.kept.size() != current.size();
    return plan;
}

}  // namespace setup
