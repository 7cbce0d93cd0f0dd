#include "actions/system/os_version_plan.h"

namespace setup {

namespace {

constexpr wchar_t kVersionSource[] = L"RtlGetVersion";
constexpr wchar_t kCurrentVersion[] = L"HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

std::wstring Number(std::uint32_t n) { return std::to_wstring(n); }

}  // namespace

std::wstring MachineName(std::uint16_t machine) {
    switch (machine) {
    case 0x014c: return L"x86";
    case 0x8664: return L"x64";
    case 0xAA64: return L"arm64";
    case 0x01c4: return L"arm";
    default: return std::wstring();
    }
}

std::vector<OsProperty> OsProperties(const OsFacts& f) {
    std::vector<OsProperty> out;
    auto add = [&](const wchar_t* name, std::wstring value, std::wstring source) {
        out.push_back({name, std::move(value), std::move(source)});
    };
    const bool version = f.major && f.minor && f.build;
    const std::wstring noVersion = L"RtlGetVersion is not available";
    if (version) {
        add(L"OS_VERSION", Number(*f.major) + L"." + Number(*f.minor) + L"." + Number(*f.build), kVersionSource);
        add(L"OS_MAJOR", Number(*f.major), kVersionSource);
        add(L"OS_MINOR", Number(*f.minor), kVersionSource);
        add(L"OS_BUILD", Number(*f.build), kVersionSource);
    } else {
        for (const wchar_t* name : {L"OS_VERSION", L"OS_MAJOR", L"OS_MINOR", L"OS_BUILD"}) add(name, {}, noVersion);
    }
    if (f.ubr) add(L"OS_UBR", Number(*f.ubr), std::wstring(kCurrentVersion) + L"\\UBR");
    else add(L"OS_UBR", {}, std::wstring(kCurrentVersion) + L"\\UBR is not there (before Windows 10)");
    // Not capped: the installer's own VersionNT stops at 603 on Windows 10 and 11.
    if (version) add(L"OS_VERSIONNT", Number(*f.major * 100 + *f.minor), L"RtlGetVersion (major * 100 + minor)");
    else add(L"OS_VERSIONNT", {}, noVersion);
    if (f.productType) add(L"OS_PRODUCTTYPE", std::to_wstring(*f.productType), kVersionSource);
    else add(L"OS_PRODUCTTYPE", {}, noVersion);
    if (f.edition) add(L"OS_EDITION", Number(*f.edition), L"GetProductInfo");
    else add(L"OS_EDITION", {}, L"GetProductInfo gave no edition");
    if (f.displayVersion && !f.displayVersion->empty()) {
        add(L"OS_DISPLAYVERSION", *f.displayVersion, std::wstring(kCurrentVersion) + L"\\DisplayVersion");
    } else {
        add(L"OS_DISPLAYVERSION", {}, std::wstring(kCurrentVersion) + L"\\DisplayVersion is not there");
    }
    if (version && f.productType) {
        const bool eleven = *f.productType == 1 && *f.major == 10 && *f.build >= 22000;
        add(L"OS_WINDOWS11", eleven ? L"1" : L"",
            eleven ? L"a workstation of build 22000 or later" : L"not a workstation of build 22000 or later");
    } else {
        add(L"OS_WINDOWS11", {}, noVersion);
    }
    const std::wstring native = f.nativeMachine ? MachineName(*f.nativeMachine) : std::wstring();
    const std::wstring process = f.processMachine ? MachineName(*f.processMachine) : std::wstring();
    add(L"OS_NATIVE_MACHINE", native, native.empty() ? L"the machine could not be told" : f.machineSource);
    add(L"OS_PROCESS_MACHINE", process, process.empty() ? L"the machine could not be told" : f.machineSource);
    return out;
}

}  // namespace setup
