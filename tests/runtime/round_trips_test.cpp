#include "runtime/round_trips.h"

#include <gtest/gtest.h>

namespace setup {
namespace {

// bench/row_cost.py reads this line back: its shape is a contract with the bench.
TEST(RoundTrips, TimeLineSplitsTheActionIntoCallsAndOwnWork) {
    ResetRoundTrips();
    AddRoundTrip(RoundTripKind::Installer, 3'000'000);
    AddRoundTrip(RoundTripKind::Installer, 1'000'000);
    AddRoundTrip(RoundTripKind::Registry, 1'500'000);
    const RoundTripTotals totals = RoundTrips();
    EXPECT_EQ(TimeSpentLine(totals, std::chrono::milliseconds(10)),
              L"Time: 10.0 ms; installer calls 2 in 4.0 ms; registry calls 1 in 1.5 ms; own 4.5 ms.");
    ResetRoundTrips();
    EXPECT_EQ(RoundTrips().installerCalls + RoundTrips().registryCalls, 0u);
}

}  // namespace
}  // namespace setup
