#include "runtime/record_heir.h"

#include <gtest/gtest.h>

#include <map>

#include "runtime/fake_component_states.h"

namespace setup {
namespace {

class FakeHeirs : public RecordHeirLookup {
public:
    std::vector<std::wstring> Clients(std::wstring_view) override { return clients; }
    std::optional<std::wstring> ReadRecord(const std::wstring& product, const RecordRow& row) override {
        const auto it = records.find(product + L"/" + row.id);
        return it == records.end() ? std::nullopt : std::optional<std::wstring>(it->second);
    }
    std::vector<std::wstring> clients = {L"{old}", L"{OTHER}", L"{new}"};
    std::map<std::wstring, std::wstring> records = {{L"{OLD}/Idle", L"old idle"}, {L"{OLD}/Remove", L"old remove"},
                                                    {L"{NEW}/Remove", L"new remove"}, {L"{OLD}/Reinstall", L"old"}};
};

TEST(RecordHeir, KeptComponentsAndUpgradesHandTheirRecordsOver) {
    test::FakeComponentStates states;
    FakeHeirs lookup;
    const std::vector<RecordRow> rows = {{L"Idle", L"Idle"}, {L"Remove", L"Remove", true}, {L"Reinstall", L"Reinstall"},
                                         {L"Unrecorded", L"Idle"}};
    RecordingLogSink log;
    const auto plan = [&](bool whole, const std::wstring& upgrading) {
        return PlanRecordHandovers(rows, states, {L"{OLD}", whole, upgrading}, lookup, L"cabinet", log);
    };
    // A change that keeps the product: every row's own uninstall takes its work back.
    EXPECT_TRUE(plan(false, L"").empty());
    EXPECT_TRUE(log.lines.empty());

    // The whole product goes while others keep the component: the upgrading
    // product first, whatever the letter case, never this one; an uninstalled
    // component passes only to an upgrading product that recorded the row.
    std::vector<RecordHandover> handovers = plan(true, L"{NEW}");
    ASSERT_EQ(handovers.size(), 2u);
    EXPECT_EQ(handovers[0], (RecordHandover{L"Idle", false, L"{new}", L"old idle", std::nullopt}));
    EXPECT_EQ(handovers[1], (RecordHandover{L"Remove", true, L"{NEW}", L"old remove", L"new remove"}));
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
        L"Hand the record of cabinet 'Idle' over to product '{new}': its component stays installed for that product.",
        L"Hand the record of cabinet 'Remove' over to product '{NEW}': that product upgrades this one "
        L"(UPGRADINGPRODUCTCODE) and recorded the same row."}));
    EXPECT_EQ(DecodeRecordHandovers(EncodeRecordHandovers(handovers)), handovers);

    // Without an upgrade the first other client; without a record of the row
    // the upgrading product leaves the take-back here; with no other client the
    // record is dropped.
    lookup.records.erase(L"{NEW}/Remove");
    EXPECT_EQ(plan(true, L"{NEW}").size(), 1u);
    EXPECT_EQ(plan(true, L"")[0].heir, L"{OTHER}");
    lookup.clients = {L"{OLD}"};
    EXPECT_EQ(plan(true, L"")[0].heir, L"");
    EXPECT_EQ(log.lines.back(),
              L"Drop the record of cabinet 'Idle': its component stays installed, but for no other product.");
}

}  // namespace
}  // namespace setup
