#include "runtime/round_trips.h"

#include <atomic>
#include <cstdio>

namespace setup {

namespace {

std::atomic<unsigned> g_installerCalls{0};
std::atomic<std::uint64_t> g_installerNanoseconds{0};
std::atomic<unsigned> g_registryCalls{0};
std::atomic<std::uint64_t> g_registryNanoseconds{0};

std::wstring Milliseconds(double nanoseconds) {
    wchar_t text[32];
    std::swprintf(text, sizeof text / sizeof text[0], L"%.1f", nanoseconds / 1e6);
    return text;
}

}  // namespace

std::wstring TimeSpentLine(const RoundTripTotals& totals, std::chrono::steady_clock::duration elapsed) {
    const auto all = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    const double own = all - static_cast<double>(totals.installerNanoseconds) -
                       static_cast<double>(totals.registryNanoseconds);
    return L"Time: " + Milliseconds(all) + L" ms; installer calls " + std::to_wstring(totals.installerCalls) +
           L" in " + Milliseconds(static_cast<double>(totals.installerNanoseconds)) + L" ms; registry calls " +
           std::to_wstring(totals.registryCalls) + L" in " +
           Milliseconds(static_cast<double>(totals.registryNanoseconds)) + L" ms; own " +
           Milliseconds(own < 0 ? 0 : own) + L" ms.";
}

void AddRoundTrip(RoundTripKind kind, std::uint64_t nanoseconds) noexcept {
    if (kind == RoundTripKind::Installer) {
        g_installerCalls.fetch_add(1, std::memory_order_relaxed);
        g_installerNanoseconds.fetch_add(nanoseconds, std::memory_order_relaxed);
    } else {
        g_registryCalls.fetch_add(1, std::memory_order_relaxed);
        g_registryNanoseconds.fetch_add(nanoseconds, std::memory_order_relaxed);
    }
}

RoundTripTotals RoundTrips() noexcept {
    return {g_installerCalls.load(std::memory_order_relaxed), g_installerNanoseconds.load(std::memory_order_relaxed),
            g_registryCalls.load(std::memory_order_relaxed), g_registryNanoseconds.load(std::memory_order_relaxed)};
}

void ResetRoundTrips() noexcept {
    g_installerCalls.store(0, std::memory_order_relaxed);
    g_installerNanoseconds.store(0, std::memory_order_relaxed);
    g_registryCalls.store(0, std::memory_order_relaxed);
    g_registryNanoseconds.store(0, std::memory_order_relaxed);
}

}  // namespace setup
