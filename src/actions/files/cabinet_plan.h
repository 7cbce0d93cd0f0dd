#pragma once
// Planning of the CabPackage table: which rows extract a cabinet and which
// remove what an earlier extraction placed, which names inside a cabinet are
// refused, and the three texts the work keeps on the machine: the record of
// the files a row placed, the journal that lets rollback take a row back, and
// the data of the scheduled actions. Plain functions over plain data.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/record_heir.h"
#include "runtime/log_sink.h"

namespace setup {

namespace cabinet {
// Attributes bits.
enum : int {
    Overwrite = 0x1,        // replace existing files (backed up); without it they are kept
    PerUser = 0x2,          // the target belongs to the user: the deferred work runs impersonated
    DeleteOnCommit = 0x4,   // the cabinet goes when the installation commits
    KeepOnUninstall = 0x8,  // the extracted files stay when the component is uninstalled
    WarnOnFailure = 0x10,   // a failure takes the row back and is logged as a warning
};
inline constexpr int kKnownBits = 0x1F;
}  // namespace cabinet

struct CabinetRow {
    std::wstring id;
    std::wstring cabinet;  // formatted
    std::wstring target;   // formatted
    int attributes = 0;
    std::wstring component;
    std::wstring condition;
};

// What a row leaves on the machine, so that uninstall removes exactly that:
// the target, the files it placed and the folders it created (full paths).
struct CabinetRecord {
    std::wstring target;
    std::vector<std::wstring> files;
    std::vector<std::wstring> folders;
    bool operator==(const CabinetRecord&) const = default;
};

std::wstring EncodeCabinetRecord(const CabinetRecord& record);
CabinetRecord DecodeCabinetRecord(std::wstring_view text);
// The record after an extraction: the earlier one's entries, then the new ones
// it does not hold yet (letter case ignored).
CabinetRecord MergeCabinetRecords(const CabinetRecord& earlier, const CabinetRecord& added);
// A record handed over to the product that keeps the files: the heir's target
// wins, the files and folders of both are kept.
std::wstring MergeCabinetRecordTexts(const std::wstring& ours, const std::optional<std::wstring>& heirs);

// One row's work. `work` is the row's work folder beside the target: the new
// files arrive in work\new, replaced and removed files wait in work\old, and
// work\journal lists every step so that rollback can take it back.
struct CabinetItem {
    std::wstring id;
    std::wstring cabinet;
    std::wstring target;
    int attributes = 0;
    bool remove = false;      // uninstall: remove the recorded files
    std::wstring work;
    std::wstring product;     // the ProductCode the record is kept under
    CabinetRecord record;     // uninstall: what the row placed
    bool operator==(const CabinetItem&) const = default;
};

// Why a name inside a cabinet is refused, or empty: it must stay inside the
// target folder, so no "..", ".", empty component, drive, leading separator or
// ':' anywhere, and it must be a name Windows keeps as it is (no character a
// path cannot hold, no component ending in a dot or a blank).
std::wstring CabinetNameProblem(std::wstring_view name);

// Why a row may not extract into `target`, or empty: a path that is not
// absolute or malformed, or the root of a drive or share.
std::wstring CabinetTargetProblem(const std::wstring& target);

class CabinetMachine {
public:
    virtual ~CabinetMachine() = default;
    virtual std::wstring NewUuid() = 0;
    // The record of a row from an earlier installation, or nothing.
    virtual std::optional<CabinetRecord> ReadRecord(const CabinetItem& item) = 0;
};

// The decision for one row: a component with nothing to do, the condition,
// then install and reinstall extract, uninstall removes (unless 0x8).
Decision DecideCabinet(ComponentStates& states, const CabinetRow& row, LogSink& log);

// The chosen rows of one immediate action: install and reinstall rows for
// `InstallCabs`, uninstall rows for `UninstallCabs` (`uninstalling`). An
// uninstall row needs its record: without one it has nothing to remove.
std::vector<CabinetItem> PlanCabinets(const std::vector<CabinetRow>& rows, ComponentStates& states,
                                      bool uninstalling, const std::wstring& product, CabinetMachine& machine,
                                      LogSink& log);

// A step of a row, written to its journal before it is taken.
struct JournalEntry {
    enum Kind { Folder, Placed, Replaced, Removed, RemovedFolder, Record };
    Kind kind = Folder;
    std::wstring path;   // Record: the record's earlier text, empty when there was none
    std::wstring kept;   // Replaced, Removed: where the earlier file waits
    bool operator==(const JournalEntry&) const = default;
};

// One line, ending in a line feed.
std::wstring EncodeJournalEntry(const JournalEntry& entry);
// The entries of a journal; an unfinished last line (the step was never
// taken) and lines it cannot read are left out.
std::vector<JournalEntry> DecodeJournal(std::wstring_view text);

// The data of the scheduled actions: the rows, and the installation's
// warnings file (InstallationWarningsFilePath) for rows that only warn.
struct CabinetActionData {
    std::vector<CabinetItem> items;
    std::wstring warningsFile;
    std::wstring product;                   // with handovers: the ProductCode they leave
    std::vector<RecordHandover> handovers;  // uninstall: records that pass to another product
};

std::wstring EncodeCabinetActionData(const CabinetActionData& data);
CabinetActionData DecodeCabinetActionData(std::wstring_view text);

}  // namespace setup
