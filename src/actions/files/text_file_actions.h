#pragma once
// The TextFile table's actions. InstallTextFiles reads and plans the table and
// schedules rollback, deferred and commit with one shared action data;
// InstallTextFilesDeferred backs up and writes the files (or stages them for
// the next restart under LOCKFILESONUPDATE=1); InstallTextFilesRollback puts
// the old files back and takes back its restart-time renames;
// InstallTextFilesCommit deletes the backups.

#include <optional>
#include <string>
#include <vector>

#include "actions/files/text_file_plan.h"
#include "runtime/session.h"

namespace setup {

// The planner's questions, answered by the machine and the session.
class InstallerTextFileMachine final : public TextFileMachine {
public:
    explicit InstallerTextFileMachine(const Session& session);
    bool FileExists(const std::wstring& path) override;
    std::wstring NewUuid() override;
    std::wstring LockFilesOnUpdate() override;
    // Verbose logging: the registry files' content is logged whole.
    bool LogContentInFull();
    std::vector<std::wstring> FormatAll(const std::vector<std::wstring>& texts) override;

private:
    const Session& session_;
    std::optional<std::wstring> lock_;
};

// The names the three scheduled actions run under (the registry files use
// the same entry points under names of their own).
struct TextFileActionNames {
    const wchar_t* rollback;
    const wchar_t* deferred;
    const wchar_t* commit;
};

// Schedules rollback, deferred and commit over `items` with one action data
// (and the rename list's snapshot when an item is replaced at restart);
// nothing when there are no items.
void ScheduleTextFileItems(const Session& session, std::vector<TextFileItem> items, const TextFileActionNames& names);

void InstallTextFiles(Session& session);
void InstallTextFilesDeferred(Session& session);
void InstallTextFilesRollback(Session& session);
void InstallTextFilesCommit(Session& session);

}  // namespace setup
