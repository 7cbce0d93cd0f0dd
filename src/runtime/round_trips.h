#pragma once
// Where an action's time goes: the calls the installer's process serves and
// the registry calls (round trips to wineserver under Wine, to the kernel on
// Windows) are counted and timed, so that the frame can say, when logging is
// verbose, how much of the action was the library's own work.

#include <chrono>
#include <cstdint>
#include <string>

namespace setup {

enum class RoundTripKind { Installer, Registry };

struct RoundTripTotals {
    unsigned installerCalls = 0;
    std::uint64_t installerNanoseconds = 0;
    unsigned registryCalls = 0;
    std::uint64_t registryNanoseconds = 0;
};

void AddRoundTrip(RoundTripKind kind, std::uint64_t nanoseconds) noexcept;
RoundTripTotals RoundTrips() noexcept;
void ResetRoundTrips() noexcept;

// "Time: <t> ms; installer calls <n> in <ti> ms; registry calls <m> in <tr> ms;
// own <t - ti - tr> ms." for an action that took `elapsed` (one decimal).
std::wstring TimeSpentLine(const RoundTripTotals& totals, std::chrono::steady_clock::duration elapsed);

// Times one round trip from construction to destruction.
class RoundTripClock {
public:
    explicit RoundTripClock(RoundTripKind kind) noexcept : kind_(kind), start_(std::chrono::steady_clock::now()) {}
    ~RoundTripClock() {
        const auto elapsed = std::chrono::steady_clock::now() - start_;
        AddRoundTrip(kind_, static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
    }
    RoundTripClock(const RoundTripClock&) = delete;
    RoundTripClock& operator=(const RoundTripClock&) = delete;

private:
    RoundTripKind kind_;
    std::chrono::steady_clock::time_point start_;
};

// Calls the registry function `fn` and times the call.
template <class Fn, class... Args>
auto RegistryCall(Fn fn, Args&&... args) {
    const RoundTripClock clock(RoundTripKind::Registry);
    return fn(std::forward<Args>(args)...);
}

}  // namespace setup
