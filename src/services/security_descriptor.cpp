#include "services/security_descriptor.h"

#include "runtime/win32.h"

#include <sddl.h>

#include "runtime/round_trips.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"

namespace setup {

namespace {

constexpr SECURITY_INFORMATION kOwnerGroupDacl =
    OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

HKEY RootHandle(int root) {
    switch (root) {
    case 0: return HKEY_CLASSES_ROOT;
    case 1: return HKEY_CURRENT_USER;
    case 3: return HKEY_USERS;
    default: return HKEY_LOCAL_MACHINE;
    }
}

struct LocalMemory {
    void* p = nullptr;
    ~LocalMemory() {
        if (p) ::LocalFree(p);
    }
};

struct ServiceHandleTraits {
    using Type = SC_HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { ::CloseServiceHandle(h); }
};
using ServiceHandle = UniqueHandle<ServiceHandleTraits>;

ServiceHandle OpenServiceFor(const std::wstring& name, DWORD access) {
    ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return ServiceHandle();
    return ServiceHandle(::OpenServiceW(manager.Get(), name.c_str(), access));
}

// Self-relative descriptor bytes, whole: the header fits, the parts it points
// to lie within the bytes (IsValidSecurityDescriptor alone reads past a short buffer).
bool IsDescriptor(const std::vector<unsigned char>& bytes) {
    if (bytes.size() < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return false;
    auto* sd = const_cast<unsigned char*>(bytes.data());
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    return ::GetSecurityDescriptorControl(sd, &control, &revision) && (control & SE_SELF_RELATIVE) &&
           ::IsValidSecurityDescriptor(sd) && ::GetSecurityDescriptorLength(sd) <= bytes.size();
}

// The parts a descriptor holds, as the SECURITY_INFORMATION that writes them.
SECURITY_INFORMATION PartsOf(PSECURITY_DESCRIPTOR sd) {
    SECURITY_INFORMATION parts = 0;
    PSID sid = nullptr;
    BOOL defaulted = FALSE, present = FALSE;
    PACL acl = nullptr;
    if (::GetSecurityDescriptorOwner(sd, &sid, &defaulted) && sid) parts |= OWNER_SECURITY_INFORMATION;
    if (::GetSecurityDescriptorGroup(sd, &sid, &defaulted) && sid) parts |= GROUP_SECURITY_INFORMATION;
    if (::GetSecurityDescriptorDacl(sd, &present, &acl, &defaulted) && present) parts |= DACL_SECURITY_INFORMATION;
    if (::GetSecurityDescriptorSacl(sd, &present, &acl, &defaulted) && present) parts |= SACL_SECURITY_INFORMATION;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    if (::GetSecurityDescriptorControl(sd, &control, &revision)) {
        if (parts & DACL_SECURITY_INFORMATION) {
            parts |= (control & SE_DACL_PROTECTED) ? PROTECTED_DACL_SECURITY_INFORMATION
                                                   : UNPROTECTED_DACL_SECURITY_INFORMATION;
        }
        if (parts & SACL_SECURITY_INFORMATION) {
            parts |= (control & SE_SACL_PROTECTED) ? PROTECTED_SACL_SECURITY_INFORMATION
                                                   : UNPROTECTED_SACL_SECURITY_INFORMATION;
        }
    }
    return parts;
}

}  // namespace

PrivilegeScope::PrivilegeScope(const wchar_t* privilege) {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) return;
    TOKEN_PRIVILEGES wanted{};
    wanted.PrivilegeCount = 1;
    wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    previous_.assign(sizeof(TOKEN_PRIVILEGES), 0);
    DWORD size = static_cast<DWORD>(previous_.size());
    if (!::LookupPrivilegeValueW(nullptr, privilege, &wanted.Privileges[0].Luid) ||
        !::AdjustTokenPrivileges(token, FALSE, &wanted, size, reinterpret_cast<PTOKEN_PRIVILEGES>(previous_.data()),
                                 &size)) {
        ::CloseHandle(token);
        return;
    }
    token_ = token;
}

PrivilegeScope::~PrivilegeScope() {
    if (!token_) return;
    const DWORD error = ::GetLastError();
    ::AdjustTokenPrivileges(static_cast<HANDLE>(token_), FALSE, reinterpret_cast<PTOKEN_PRIVILEGES>(previous_.data()),
                            0, nullptr, nullptr);
    ::CloseHandle(static_cast<HANDLE>(token_));
    ::SetLastError(error);
}

std::vector<unsigned char> ReadSecurityDescriptor(const SecuredObject& object, bool withSacl) {
    const std::wstring failure = L"Failed to read the security descriptor of '" + object.name + L"'.";
    const SECURITY_INFORMATION parts = kOwnerGroupDacl | (withSacl ? SACL_SECURITY_INFORMATION : 0);
    PrivilegeScope security(L"SeSecurityPrivilege");
    std::vector<unsigned char> bytes(512);
    for (int round = 0; round < 4; ++round) {  // the descriptor may grow between the two calls
        DWORD needed = 0;
        BOOL ok = FALSE;
        DWORD error = ERROR_SUCCESS;
        switch (object.kind) {
        case SecuredKind::File:
            ok = ::GetFileSecurityW(object.name.c_str(), parts, bytes.data(), static_cast<DWORD>(bytes.size()), &needed);
            error = ok ? ERROR_SUCCESS : ::GetLastError();
            break;
        case SecuredKind::RegistryKey: {
            RegistryKey key;
            const REGSAM access = READ_CONTROL | (withSacl ? ACCESS_SYSTEM_SECURITY : 0) | object.view;
            LONG status = RegistryCall(::RegOpenKeyExW, RootHandle(object.root), object.name.c_str(), REG_OPTION_OPEN_LINK, access,
                                          key.Put());
            needed = static_cast<DWORD>(bytes.size());
            if (status == ERROR_SUCCESS) status = RegistryCall(::RegGetKeySecurity, key.Get(), parts, bytes.data(), &needed);
            ok = status == ERROR_SUCCESS;
            error = static_cast<DWORD>(status);
            break;
        }
        case SecuredKind::Service: {
            const ServiceHandle service =
                OpenServiceFor(object.name, READ_CONTROL | (withSacl ? ACCESS_SYSTEM_SECURITY : 0));
            ok = service && ::QueryServiceObjectSecurity(service.Get(), parts, bytes.data(),
                                                         static_cast<DWORD>(bytes.size()), &needed);
            error = ok ? ERROR_SUCCESS : ::GetLastError();
            break;
        }
        }
        if (ok) {
            bytes.resize(::GetSecurityDescriptorLength(bytes.data()));
            return bytes;
        }
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= bytes.size()) Throw(FailureFromWin32(error), failure);
        bytes.resize(needed);
    }
    Throw(FailureFromWin32(ERROR_INSUFFICIENT_BUFFER), failure);
}

void WriteSecurityDescriptor(const SecuredObject& object, const std::vector<unsigned char>& descriptor) {
    const std::wstring failure = L"Failed to write the security descriptor of '" + object.name + L"'.";
    if (!IsDescriptor(descriptor)) Throw(kInvalidArgument, failure);
    auto* sd = const_cast<unsigned char*>(descriptor.data());
    const SECURITY_INFORMATION parts = PartsOf(sd);
    PrivilegeScope restore(L"SeRestorePrivilege");
    PrivilegeScope security(L"SeSecurityPrivilege");
    switch (object.kind) {
    case SecuredKind::File:
        ThrowLastErrorIf(!::SetFileSecurityW(object.name.c_str(), parts, sd), failure);
        return;
    case SecuredKind::RegistryKey: {
        RegistryKey key;
        const REGSAM access = WRITE_DAC | WRITE_OWNER | ((parts & SACL_SECURITY_INFORMATION) ? ACCESS_SYSTEM_SECURITY : 0);
        LONG status = RegistryCall(::RegOpenKeyExW, RootHandle(object.root), object.name.c_str(), REG_OPTION_OPEN_LINK,
                                      access | object.view, key.Put());
        if (status == ERROR_SUCCESS) status = RegistryCall(::RegSetKeySecurity, key.Get(), parts, sd);
        ThrowIfWin32Error(status, failure);
        return;
    }
    case SecuredKind::Service: {
        const ServiceHandle service = OpenServiceFor(
            object.name, WRITE_DAC | WRITE_OWNER | ((parts & SACL_SECURITY_INFORMATION) ? ACCESS_SYSTEM_SECURITY : 0));
        ThrowLastErrorIf(!service || !::SetServiceObjectSecurity(service.Get(), parts, sd), failure);
        return;
    }
    }
}

std::wstring DescriptorToSddl(const std::vector<unsigned char>& descriptor) {
    if (!IsDescriptor(descriptor)) Throw(kInvalidArgument, L"The bytes are no security descriptor.");
    auto* sd = const_cast<unsigned char*>(descriptor.data());
    LocalMemory text;
    ThrowLastErrorIf(!::ConvertSecurityDescriptorToStringSecurityDescriptorW(
                         sd, SDDL_REVISION_1, PartsOf(sd) & (kOwnerGroupDacl | SACL_SECURITY_INFORMATION),
                         reinterpret_cast<LPWSTR*>(&text.p), nullptr),
                     L"Failed to convert a security descriptor to SDDL.");
    return static_cast<const wchar_t*>(text.p);
}

std::vector<unsigned char> SddlToDescriptor(std::wstring_view sddl) {
    const std::wstring text(sddl);
    LocalMemory sd;
    ULONG size = 0;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &sd.p, &size)) {
        const DWORD error = ::GetLastError();
        Throw(error == ERROR_SUCCESS ? kInvalidArgument : FailureFromWin32(error),
              L"The security descriptor '" + text + L"' does not parse.");
    }
    const auto* bytes = static_cast<const unsigned char*>(sd.p);
    return std::vector<unsigned char>(bytes, bytes + size);
}

std::wstring CurrentAccountSid() {
    HANDLE raw = nullptr;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, &raw)) {
        ThrowLastErrorIf(!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw),
                         L"Failed to open the process token.");
    }
    KernelHandle token(raw);
    std::vector<unsigned char> buffer(256);
    DWORD size = 0;
    if (!::GetTokenInformation(token.Get(), TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()), &size)) {
        buffer.resize(size);
        ThrowLastErrorIf(!::GetTokenInformation(token.Get(), TokenUser, buffer.data(), size, &size),
                         L"Failed to read the token's user.");
    }
    LocalMemory text;
    ThrowLastErrorIf(!::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid,
                                               reinterpret_cast<LPWSTR*>(&text.p)),
                     L"Failed to convert the token's user to a SID string.");
    return static_cast<const wchar_t*>(text.p);
}

}  // namespace setup
