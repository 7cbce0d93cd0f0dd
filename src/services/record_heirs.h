#pragma once
// The installer's side of record handovers (see runtime/record_heir.h): who
// else a component is installed for, the records of a family, and the
// deferred moves with their rollback.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/record_heir.h"
#include "runtime/session.h"

namespace setup {

// ProductCode, REMOVE=ALL and UPGRADINGPRODUCTCODE of the session.
ProductRemoval ProductRemovalOf(const Session& session);

// Clients through MsiEnumClientsW (the component's GUID read once per
// component), records from the family's record store.
class InstallerRecordHeirs final : public RecordHeirLookup {
public:
    InstallerRecordHeirs(Session session, std::wstring family) : session_(session), family_(std::move(family)) {}
    std::vector<std::wstring> Clients(std::wstring_view component) override;
    std::optional<std::wstring> ReadRecord(const std::wstring& product, const RecordRow& row) override;

private:
    Session session_;
    std::wstring family_;
    std::map<std::wstring, std::vector<std::wstring>, std::less<>> clients_;
};

// How a family joins this product's record of a row to the heir's own.
using RecordMerge = std::function<std::wstring(const std::wstring& ours, const std::optional<std::wstring>& heirs)>;

// Deferred: each record goes to its heir (merged with the heir's record as it
// stands now) and leaves this product; without an heir it is deleted.
void CarryOutHandovers(std::wstring_view family, const std::wstring& product,
                       const std::vector<RecordHandover>& handovers, const RecordMerge& merge);
// Rollback: both records as they stood before.
void RollbackHandovers(std::wstring_view family, const std::wstring& product,
                       const std::vector<RecordHandover>& handovers);

}  // namespace setup
