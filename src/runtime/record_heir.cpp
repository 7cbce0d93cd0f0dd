#include "runtime/record_heir.h"

#include <algorithm>
#include <cwctype>

#include "runtime/action_data.h"
#include "runtime/format.h"

namespace setup {

namespace {

bool SameCode(std::wstring_view a, std::wstring_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
               return std::towupper(x) == std::towupper(y);
           });
}

// The component stays while the whole product goes: another product keeps it.
bool KeptForAnother(const ComponentState& state, bool wholeProduct) {
    return wholeProduct && ClassifyComponent(state) == ComponentTask::None &&
           (state.installed == install_state::Local || state.installed == install_state::Source);
}

}  // namespace

std::vector<RecordHandover> PlanRecordHandovers(const std::vector<RecordRow>& rows, ComponentStates& states,
                                                const ProductRemoval& removal, RecordHeirLookup& lookup,
                                                std::wstring_view what, LogSink& log) {
    std::vector<RecordHandover> handovers;
    for (const RecordRow& row : rows) {
        const std::optional<ComponentState> state = states.State(row.component);
        if (!state) continue;
        const bool kept = KeptForAnother(*state, removal.wholeProduct);
        const bool upgraded = !removal.upgrading.empty() && ClassifyComponent(*state) == ComponentTask::Uninstall;
        if (!kept && !upgraded) continue;
        const std::optional<std::wstring> text = lookup.ReadRecord(removal.product, row);
        if (!text) continue;
        RecordHandover handover{row.id, row.perUser, {}, *text, {}};
        if (kept) {
            // The other clients, the upgrading product first when it is one.
            std::vector<std::wstring> clients = lookup.Clients(row.component);
            std::erase_if(clients, [&](const std::wstring& client) { return SameCode(client, removal.product); });
            const auto upgrading = std::find_if(clients.begin(), clients.end(), [&](const std::wstring& client) {
                return SameCode(client, removal.upgrading);
            });
            if (upgrading != clients.end()) std::iter_swap(clients.begin(), upgrading);
            if (clients.empty()) {
                log.Info(L"Drop the record of %s '%s': its component stays installed, but for no other product.",
                         std::wstring(what), row.id);
            } else {
                handover.heir = clients.front();
                handover.heirText = lookup.ReadRecord(handover.heir, row);
                log.Info(L"Hand the record of %s '%s' over to product '%s': its component stays installed for "
                         L"that product.",
                         std::wstring(what), row.id, handover.heir);
            }
        } else {
            // Only when the new product recorded the same row does its
            // uninstall take the work back; otherwise the row is taken back now.
            handover.heirText = lookup.ReadRecord(removal.upgrading, row);
            if (!handover.heirText) continue;
            handover.heir = removal.upgrading;
            log.Info(L"Hand the record of %s '%s' over to product '%s': that product upgrades this one "
                     L"(UPGRADINGPRODUCTCODE) and recorded the same row.",
                     std::wstring(what), row.id, handover.heir);
        }
        handovers.push_back(std::move(handover));
    }
    return handovers;
}

std::wstring EncodeRecordHandovers(const std::vector<RecordHandover>& handovers) {
    std::vector<PropertyMap> records;
    for (const RecordHandover& handover : handovers) {
        PropertyMap record;
        record.Set(L"id", handover.id);
        if (handover.perUser) record.Set(L"usr", 1);
        record.Set(L"heir", handover.heir);
        record.Set(L"text", handover.text);
        if (handover.heirText) record.Set(L"heirText", *handover.heirText);
        records.push_back(std::move(record));
    }
    return EncodeRecordList(records);
}

std::vector<RecordHandover> DecodeRecordHandovers(std::wstring_view text) {
    std::vector<RecordHandover> handovers;
    for (const PropertyMap& record : DecodeRecordList(text)) {
        RecordHandover handover{record.Get(L"id"), record.GetInteger(L"usr") != 0, record.Get(L"heir"),
                                record.Get(L"text"), std::nullopt};
        if (record.Contains(L"heirText")) handover.heirText = record.Get(L"heirText");
        handovers.push_back(std::move(handover));
    }
    return handovers;
}

}  // namespace setup
