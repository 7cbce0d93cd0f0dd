#include "actions/system/well_known_sids.h"

#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"

namespace setup {

namespace {

struct AccountProperty {
    const wchar_t* property;
    int sidType;
};

constexpr AccountProperty kAccounts[] = {
    {L"ACCOUNT_LOCALSYSTEM", 22},     // WinLocalSystemSid
    {L"ACCOUNT_LOCALSERVICE", 23},    // WinLocalServiceSid
    {L"ACCOUNT_NETWORKSERVICE", 24},  // WinNetworkServiceSid
    {L"ACCOUNT_CREATOROWNER", 3},     // WinCreatorOwnerSid
    {L"ACCOUNT_ADMINISTRATORS", 26},  // WinBuiltinAdministratorsSid
    {L"ACCOUNT_USERS", 27},           // WinBuiltinUsersSid
    {L"ACCOUNT_GUESTS", 28},          // WinBuiltinGuestsSid
};

}  // namespace

std::wstring GetWellKnownAccountName(int sidType) {
    BYTE sid[SECURITY_MAX_SID_SIZE] = {};
    DWORD sidSize = sizeof(sid);
    ThrowLastErrorIf(!::CreateWellKnownSid(static_cast<WELL_KNOWN_SID_TYPE>(sidType), nullptr, sid, &sidSize),
                     L"Failed to create SID.");

    DWORD nameLength = 0;
    DWORD domainLength = 0;
    SID_NAME_USE use;
    const BOOL sized = ::LookupAccountSidW(nullptr, sid, nullptr, &nameLength, nullptr, &domainLength, &use);
    const DWORD sizeError = ::GetLastError();
    if (sized || sizeError != ERROR_INSUFFICIENT_BUFFER) {
        Throw(FailureFromWin32(sized ? 0 : sizeError), L"Failed to get sid name of domain size.");
    }

    std::vector<wchar_t> name(static_cast<std::size_t>(nameLength) + 1, L'\0');
    std::vector<wchar_t> domain(static_cast<std::size_t>(domainLength) + 1, L'\0');
    nameLength = static_cast<DWORD>(name.size());
    domainLength = static_cast<DWORD>(domain.size());
    ThrowLastErrorIf(!::LookupAccountSidW(nullptr, sid, name.data(), &nameLength, domain.data(), &domainLength, &use),
                     L"Failed to look up account for SID.");

    std::wstring account(name.data());
    LogInfo(L"Well known sid is '%s' for type '%d'.", account, sidType);
    return account;
}

void GetWellKnownSids(Session& session) {
    for (const AccountProperty& account : kAccounts) {
        session.SetProperty(account.property, GetWellKnownAccountName(account.sidType));
    }
}

}  // namespace setup
