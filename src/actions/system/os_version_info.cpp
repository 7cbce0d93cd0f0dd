#include "actions/system/os_version_info.h"

#include "actions/registry/registry_access.h"
#include "actions/system/os_version_plan.h"
#include "runtime/program_log.h"

namespace setup {

namespace {

constexpr wchar_t kCurrentVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

// The process's own machine when it does not run under WOW64.
constexpr std::uint16_t kOwnMachine =
#if defined(_M_ARM64) || defined(__aarch64__)
    0xAA64;
#elif defined(_M_X64) || defined(__x86_64__)
    0x8664;
#else
    0x014c;
#endif

void ReadVersion(OsFacts& facts) {
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW*);
    const auto getVersion = GetProcedure<RtlGetVersionFn>(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof(info);
    if (getVersion == nullptr || getVersion(&info) < 0) return;
    facts.major = info.dwMajorVersion;
    facts.minor = info.dwMinorVersion;
    facts.build = info.dwBuildNumber;
    facts.productType = info.wProductType;
    DWORD edition = 0;
    if (::GetProductInfo(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &edition) && edition != 0) {
        facts.edition = edition;
    }
}

void ReadMachine(OsFacts& facts) {
    using IsWow64Process2Fn = BOOL(WINAPI*)(HANDLE, USHORT*, USHORT*);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    if (const auto wow64 = GetProcedure<IsWow64Process2Fn>(kernel, "IsWow64Process2")) {
        USHORT process = 0, native = 0;
        if (wow64(::GetCurrentProcess(), &process, &native)) {
            facts.nativeMachine = native;
            // 0: not under WOW64, so the process runs this module's own machine
            // (an x64 process on an arm64 system is no arm64 process).
            facts.processMachine = process == 0 ? kOwnMachine : process;
            facts.machineSource = L"IsWow64Process2";
            return;
        }
    }
    SYSTEM_INFO info{};
    ::GetNativeSystemInfo(&info);
    switch (info.wProcessorArchitecture) {
    case PROCESSOR_ARCHITECTURE_INTEL: facts.nativeMachine = 0x014c; break;
    case PROCESSOR_ARCHITECTURE_AMD64: facts.nativeMachine = 0x8664; break;
    case PROCESSOR_ARCHITECTURE_ARM: facts.nativeMachine = 0x01c4; break;
    case 12: facts.nativeMachine = 0xAA64; break;  // PROCESSOR_ARCHITECTURE_ARM64
    default: break;
    }
    facts.processMachine = IsWow64() ? std::uint16_t{0x014c} : kOwnMachine;
    facts.machineSource = L"IsWow64Process and GetNativeSystemInfo";
}

void ReadCurrentVersion(OsFacts& facts) {
    // The 64-bit view: a 32-bit process would otherwise read the redirected copy.
    if (const auto ubr = ReadValue(2, kCurrentVersionKey, L"UBR", kView64); ubr && ubr->type == kRegDword) {
        ProgramLogSink log;
        facts.ubr = static_cast<std::uint32_t>(BytesToInteger(ubr->data, &log));
    }
    if (const auto display = ReadValue(2, kCurrentVersionKey, L"DisplayVersion", kView64);
        display && display->type == kRegSz) {
        facts.displayVersion = RenderValue(*display);
    }
}

}  // namespace

void GetOsVersionInfo(Session& session) {
    OsFacts facts;
    ReadVersion(facts);
    ReadMachine(facts);
    ReadCurrentVersion(facts);
    for (const OsProperty& property : OsProperties(facts)) {
        if (property.value.empty()) {
            // Cleared, not left: a value given on the command line must not pass for a fact.
            LogInfo(L"Property %s is not set: %s.", property.name, property.source);
            session.SetProperty(property.name, L"");
            continue;
        }
        LogInfo(L"Property %s = '%s' (%s).", property.name, property.value, property.source);
        session.SetProperty(property.name, property.value);
    }
}

}  // namespace setup
