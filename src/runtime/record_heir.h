#pragma once
// Who takes over what a product recorded when the product goes but a row's
// work stays on the machine for another product.
//
// The records (XML edits, extracted cabinets) are kept per product; the
// product's uninstall takes them back. Two removals must not do that:
//  - the row's component stays, because another product keeps it (a major
//    upgrade that removes the old product last, with the component GUIDs
//    unchanged): the component gets no action, and the record would stay for
//    ever under a product that is gone;
//  - a major upgrade removes this product (UPGRADINGPRODUCTCODE) after the new
//    one recorded the same row: taking the old work back would undo the new.
// In both, the record passes to the other product (merged with its own record
// of the row), whose uninstall then takes the whole work back.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

// A row that may hold a record of this product.
struct RecordRow {
    std::wstring id;
    std::wstring component;
    bool perUser = false;  // the record lives under HKEY_CURRENT_USER
};

// A record that moves: this product's text of it, and the heir's text as it
// stood (both kept for rollback). No heir: the record is dropped.
struct RecordHandover {
    std::wstring id;
    bool perUser = false;
    std::wstring heir;
    std::wstring text;
    std::optional<std::wstring> heirText;
    bool operator==(const RecordHandover&) const = default;
};

// What the decision asks the installer and the record store.
class RecordHeirLookup {
public:
    virtual ~RecordHeirLookup() = default;
    // The products the component is installed for (this one among them, or not).
    virtual std::vector<std::wstring> Clients(std::wstring_view component) = 0;
    // The product's record of the row, or nothing.
    virtual std::optional<std::wstring> ReadRecord(const std::wstring& product, const RecordRow& row) = 0;
};

struct ProductRemoval {
    std::wstring product;    // ProductCode
    bool wholeProduct = false;  // REMOVE=ALL
    std::wstring upgrading;  // UPGRADINGPRODUCTCODE
};

// The records of `rows` that pass to another product (or are dropped), each
// with its log line; `what` names a row in the log ("xml edit", "cabinet").
// Rows without a record of this product, and rows whose own uninstall takes
// the work back, are not listed.
std::vector<RecordHandover> PlanRecordHandovers(const std::vector<RecordRow>& rows, ComponentStates& states,
                                                const ProductRemoval& removal, RecordHeirLookup& lookup,
                                                std::wstring_view what, LogSink& log);

// As the scheduled actions carry them.
std::wstring EncodeRecordHandovers(const std::vector<RecordHandover>& handovers);
std::vector<RecordHandover> DecodeRecordHandovers(std::wstring_view text);

}  // namespace setup
