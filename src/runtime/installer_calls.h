#pragma once
// A count of the calls the library makes into the installer during one
// action. From a custom-action server each is a round trip to the installer's
// process, the main cost of an action; the frame reports the count at the end
// of the action when logging is verbose ("Installer calls: N.").

#include <utility>

namespace setup {

void CountInstallerCall() noexcept;
unsigned InstallerCallCount() noexcept;
void ResetInstallerCallCount() noexcept;

// Calls the installer function `fn` and counts the call.
template <class Fn, class... Args>
auto InstallerCall(Fn fn, Args&&... args) {
    CountInstallerCall();
    return fn(std::forward<Args>(args)...);
}

}  // namespace setup
