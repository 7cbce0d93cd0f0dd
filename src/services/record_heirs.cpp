#include "services/record_heirs.h"


#include "runtime/program_log.h"
#include "services/path.h"
#include "services/record_store.h"

namespace setup {

namespace {

bool SameText(std::wstring_view a, std::wstring_view b) { return PathKey(a) == PathKey(b); }

void WriteOrRemove(const RecordStore& store, const std::wstring& id, const std::optional<std::wstring>& text) {
    if (text) {
        store.Write(id, *text);
    } else {
        store.Remove(id);
    }
}

}  // namespace

ProductRemoval ProductRemovalOf(const Session& session) {
    return {session.GetProperty(L"ProductCode"), SameText(session.GetProperty(L"REMOVE"), L"ALL"),
            session.GetProperty(L"UPGRADINGPRODUCTCODE")};
}

std::vector<std::wstring> InstallerRecordHeirs::Clients(std::wstring_view component) {
    if (const auto known = clients_.find(component); known != clients_.end()) return known->second;
    std::vector<std::wstring> clients;
    View view = session_.ActiveDatabase().OpenView(L"SELECT `ComponentId` FROM `Component` WHERE `Component` = ?");
    Record parameters = Record::Create(1);
    parameters.SetString(1, component);
    view.Execute(parameters);
    const std::optional<Record> row = view.Fetch();
    const std::wstring guid = row ? row->GetString(1) : std::wstring();
    for (DWORD index = 0; !guid.empty(); ++index) {
        wchar_t product[39] = {};
        if (::MsiEnumClientsW(guid.c_str(), index, product) != ERROR_SUCCESS) break;
        clients.emplace_back(product);
    }
    clients_.emplace(std::wstring(component), clients);
    return clients;
}

std::optional<std::wstring> InstallerRecordHeirs::ReadRecord(const std::wstring& product, const RecordRow& row) {
    return RecordStore::ForProduct(family_, product, row.perUser).Read(row.id);
}

void CarryOutHandovers(std::wstring_view family, const std::wstring& product,
                       const std::vector<RecordHandover>& handovers, const RecordMerge& merge) {
    for (const RecordHandover& handover : handovers) {
        const RecordStore ours = RecordStore::ForProduct(family, product, handover.perUser);
        if (!handover.heir.empty()) {
            const RecordStore heirs = RecordStore::ForProduct(family, handover.heir, handover.perUser);
            LogInfo(L"Move the record '%s' from '%s' to '%s'.", handover.id, ours.Key(), heirs.Key());
            heirs.Write(handover.id, merge(handover.text, heirs.Read(handover.id)));
        } else {
            LogInfo(L"Delete the record '%s' under '%s'.", handover.id, ours.Key());
        }
        ours.Remove(handover.id);
    }
}

void RollbackHandovers(std::wstring_view family, const std::wstring& product,
                       const std::vector<RecordHandover>& handovers) {
    for (auto it = handovers.rbegin(); it != handovers.rend(); ++it) {
        Leniently([&] {
            if (!it->heir.empty()) {
                WriteOrRemove(RecordStore::ForProduct(family, it->heir, it->perUser), it->id, it->heirText);
            }
            RecordStore::ForProduct(family, product, it->perUser).Write(it->id, it->text);
        });
    }
}

}  // namespace setup
