#pragma once
// Which operating-system properties GetOsVersionInfo sets, from the facts the
// shell gathered (portable). Every property names the source of its value;
// a fact that could not be had leaves its property unset, with the reason.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace setup {

struct OsFacts {
    std::optional<std::uint32_t> major, minor, build;  // RtlGetVersion
    std::optional<int> productType;                    // RtlGetVersion: 1 workstation, 2 domain controller, 3 server
    std::optional<std::uint32_t> ubr;                  // CurrentVersion\UBR
    std::optional<std::wstring> displayVersion;        // CurrentVersion\DisplayVersion
    std::optional<std::uint32_t> edition;              // GetProductInfo
    std::optional<std::uint16_t> nativeMachine, processMachine;  // IMAGE_FILE_MACHINE_*
    std::wstring machineSource;                        // "IsWow64Process2" or "IsWow64Process and GetNativeSystemInfo"
};

struct OsProperty {
    std::wstring name;
    std::wstring value;   // empty: not set
    std::wstring source;  // where the value came from, or why it is missing
};

// In the order they are set: OS_VERSION, OS_MAJOR, OS_MINOR, OS_BUILD, OS_UBR,
// OS_VERSIONNT, OS_PRODUCTTYPE, OS_EDITION, OS_DISPLAYVERSION, OS_WINDOWS11,
// OS_NATIVE_MACHINE, OS_PROCESS_MACHINE.
std::vector<OsProperty> OsProperties(const OsFacts& facts);

// "x86", "x64", "arm64", "arm"; empty for a machine the library does not name.
std::wstring MachineName(std::uint16_t machine);

}  // namespace setup
