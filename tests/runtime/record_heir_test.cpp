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
        if (it == records.end()) return std::nullopt;
        return it->second;
    }
    std::vector<std::wstring> clients;
    std::map<std::wstring, std::wstring> records;
};

TEST(RecordHeir, KeptComponentsAndUpgradesHandTheirRecordsOver) {
    test::FakeComponentStates states;
    FakeHeirs lookup;
    lookup.records = {{L"{OLD}/Idle", L"old idle"}, {L"{OLD}/Remove", L"old remove"}, {L"{NEW}/Idle", L"new idle"},
                      {L"{NEW}/Remove", L"new remove"}, {L"{OLD}/Reinstall", L"old"}};
    const std::vector<RecordRow> rows = {{L"Idle", L"Idle"}, {L"Remove", L"Remove", true}, {L"Reinstall", L"Reinstall"},
                                         {L"Unrecorded", L"Idle"}};
    const auto plan = [&](bool whole, const std::wstring& upgrading, RecordingLogSink& log) {
        return PlanRecordHandovers(rows, states, {L"{OLD}", whole, upgrading}, lookup, L"cabinet", log);
    };

    // A plain uninstall, or a change that keeps the product: every row's own
    // uninstall takes its work back.
    RecordingLogSink quiet;
    lookup.clients = {L"{NEW}"};
    EXPECT_TRUE(plan(false, L"", quiet).empty());
    EXPECT_TRUE(quiet.lines.empty());

    // The whole product goes while another keeps the component (the upgrading
    // product first, whatever the letter case); an uninstalled component
    // passes only to an upgrading product that recorded the same row.
    lookup.clients = {L"{old}", L"{OTHER}", L"{new}"};
    RecordingLogSink log;
    std::vector<RecordHandover> handovers = plan(true, L"{NEW}", log);
    ASSERT_EQ(handovers.size(), 2u);
    EXPECT_EQ(handovers[0], (RecordHandover{L"Idle", false, L"{new}", L"old idle", std::nullopt}));
    EXPECT_EQ(handovers[1], (RecordHandover{L"Remove", true, L"{NEW}", L"old remove", L"new remove"}));
    EXPECT_EQ(log.lines, (std::vector<std::wstring>{
        L"Hand the record of cabinet 'Idle' over to product '{new}': its component stays installed for that product.",
        L"Hand the record of cabinet 'Remove' over to product '{NEW}': that product upgrades this one "
        L"(UPGRADINGPRODUCTCODE) and recorded the same row."}));
    EXPECT_EQ(DecodeRecordHandovers(EncodeRecordHandovers(handovers)), handovers);

    // Without an upgrade the first other client takes it; with none the record
    // is dropped; an upgrading product without the row's record leaves the
    // take-back to this uninstall.
    lookup.records.erase(L"{NEW}/Remove");
    RecordingLogSink alone;
    handovers = plan(true, L"{NEW}", alone);
    ASSERT_EQ(handovers.size(), 1u);
    EXPECT_EQ(handovers[0].heir, L"{new}");
    EXPECT_EQ(plan(true, L"", alone)[0].heir, L"{OTHER}");
    lookup.clients = {L"{OLD}"};
    handovers = plan(true, L"", alone);
    ASSERT_EQ(handovers.size(), 1u);
    EXPECT_EQ(handovers[0].heir, L"");
    EXPECT_EQ(alone.lines.back(),
              L"Drop the record of cabinet 'Idle': its component stays installed, but for no other product.");
}

}  // namespace
}  // namespace setup
