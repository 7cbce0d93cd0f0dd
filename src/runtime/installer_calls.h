#pragma once
// A count of the calls the installer's own process serves during one action:
// from a custom-action server each is a round trip, the main cost of an
// action; the frame reports the count at the end of the action when logging
// is verbose ("Installer calls: N."). Counted: fetching a row, opening and
// executing views, formatting, properties, component states, conditions,
// scheduling, messages. Not counted: reading and writing a record's fields,
// creating a record, closing a handle: a fetched record comes over whole and
// lives in the action's process (measured under Wine: 30,000 field reads took
// 8 ms in all, one MsiFormatRecordW about 0.85 ms).

#include <utility>

#include "runtime/round_trips.h"

namespace setup {

inline unsigned InstallerCallCount() noexcept { return RoundTrips().installerCalls; }
inline void ResetInstallerCallCount() noexcept { ResetRoundTrips(); }

// Calls the installer function `fn`, and counts and times the call.
template <class Fn, class... Args>
auto InstallerCall(Fn fn, Args&&... args) {
    const RoundTripClock clock(RoundTripKind::Installer);
    return fn(std::forward<Args>(args)...);
}

}  // namespace setup
