#include "runtime/session.h"

#include <rpc.h>

#include "runtime/action_data.h"
#include "runtime/ca_runtime.h"
#include "runtime/program_log.h"
#include "runtime/string_buffer.h"
#include "runtime/throw.h"

namespace setup {

namespace {

bool g_explicitProgress = false;  // the installer was switched to explicit progress (once per process)

// Replies to a progress message: go on, record a cancel, or fail.
void CheckProgressReply(int reply) {
    if (reply == 0 || reply == IDOK || reply == IDYES) return;
    if (reply == IDCANCEL || reply == IDABORT) {
        CaRecordCancel();
        return;
    }
    throw Exception(kUnexpected, L"Unexpected reply to a progress message.");
}

int SendProgress(int field1, int field2, int field3) {
    Record record = Record::Create(3);
    record.SetInteger(1, field1);
    record.SetInteger(2, field2);
    record.SetInteger(3, field3);
    return CaProcessMessage(kInstallMessageProgress, record.Get());
}

}  // namespace

std::wstring Session::GetProperty(std::wstring_view name) const {
    const std::wstring key(name);
    std::wstring value;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return ::MsiGetPropertyW(install_, key.c_str(), buffer, size); }, value);
    ThrowIfMsiError(status, L"Failed to get msi property: " + key);
    return value;
}

void Session::SetProperty(std::wstring_view name, std::wstring_view value) const {
    const std::wstring key(name);
    const std::wstring text(value);
    ThrowIfMsiError(::MsiSetPropertyW(install_, key.c_str(), text.c_str()), L"Failed to set msi property: " + key);
}

bool Session::IsPropertySet(std::wstring_view name) const {
    const std::string key(name.begin(), name.end());  // property names are ASCII identifiers
    char one[1] = {0};
    DWORD size = 0;
    ::MsiGetPropertyA(install_, key.c_str(), one, &size);
    return size != 0;
}

std::wstring Session::GetTargetPath(std::wstring_view directory) const {
    const std::wstring key(directory);
    std::wstring path;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return ::MsiGetTargetPathW(install_, key.c_str(), buffer, size); }, path);
    ThrowIfMsiError(status, L"Failed to get target path for directory" + key);
    return path;
}

std::wstring Session::GetComponentPath(std::wstring_view componentGuid) const {
    const std::wstring guid(componentGuid);
    DWORD size = 0;
    INSTALLSTATE state = ::MsiLocateComponentW(guid.c_str(), nullptr, &size);
    if (state == INSTALLSTATE_INVALIDARG) Throw(kInvalidArgument, L"Invalid argument when locating component.");
    std::wstring path(static_cast<std::size_t>(size) + 1, L'\0');
    DWORD capacity = size + 1;
    state = ::MsiLocateComponentW(guid.c_str(), path.data(), &capacity);
    if (state == INSTALLSTATE_INVALIDARG) Throw(kInvalidArgument, L"Invalid argument when locating component.");
    path.resize(capacity < path.size() ? capacity : size);
    return path;
}

std::wstring Session::GetComponentGuid(std::wstring_view component) const {
    try {
        View view = ActiveDatabase().OpenView(
            L"SELECT `Component`, `ComponentId` FROM `Component` WHERE `Component` = ?");
        Record key = Record::Create(1);
        key.SetString(1, component);
        view.Execute(key);
        auto row = view.Fetch();
        if (!row) Throw(HResultFromWin32(ERROR_NO_MORE_ITEMS), L"Failed to read component GUID.");
        return row->GetString(2);
    } catch (const InstallCanceledException&) {
        throw;
    } catch (const Exception& e) {
        throw Exception(e.Code(), L"Failed to read component GUID.");
    }
}

std::wstring Session::GetPathToInstall(std::wstring_view directory, std::wstring_view fileName) const {
    try {
        std::wstring path = GetTargetPath(directory);
        if (!path.empty() && path.back() != L'\\' && path.back() != L'/') path.push_back(L'\\');
        return path.append(fileName);
    } catch (const Exception& e) {
        throw Exception(e.Code(), L"Failed to get path to install:" + std::wstring(directory));
    }
}

std::wstring Session::FormatRecord(const Record& record) const {
    std::wstring text;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return ::MsiFormatRecordW(install_, record.Get(), buffer, size); },
        text);
    ThrowIfMsiError(status, L"Failed formats record field data and properties using a format string.");
    return text;
}

std::wstring Session::FormatText(std::wstring_view text) const {
    Record record = Record::Create(0);
    record.SetString(0, text);
    return FormatRecord(record);
}

UINT Session::GetComponentState(std::wstring_view component, ComponentState& state) const {
    const std::wstring key(component);
    INSTALLSTATE installed = INSTALLSTATE_UNKNOWN;
    INSTALLSTATE action = INSTALLSTATE_UNKNOWN;
    const UINT status = ::MsiGetComponentStateW(install_, key.c_str(), &installed, &action);
    state.installed = installed;
    state.action = action;
    return status;
}

ComponentTask Session::GetComponentTask(std::wstring_view component) const {
    SessionComponentStates states(*this);
    return setup::GetComponentTask(states, component);
}

std::optional<ComponentState> SessionComponentStates::State(std::wstring_view component) {
    ComponentState state;
    if (session_.GetComponentState(component, state) != ERROR_SUCCESS) return std::nullopt;
    return state;
}

PropertyMap Session::ReadActionData() const { return DecodeActionData(CustomActionData()); }

int Session::EvaluateCondition(std::wstring_view condition) const {
    const std::wstring text(condition);
    return static_cast<int>(::MsiEvaluateConditionW(install_, text.c_str()));
}

void Session::Progress(int ticks) const {
    int reply = 0;
    try {
        if (!g_explicitProgress) {
            reply = SendProgress(1, 1, 0);
            if (reply == 0 || reply == IDOK || reply == IDYES) {
                g_explicitProgress = true;
            } else if (reply == IDCANCEL || reply == IDABORT) {
                CaRecordCancel();
            } else {
                CaLogError(kUnexpected, "failed to tell Darwin to use explicit progress messages");
                throw Exception(kUnexpected, L"failed to tell Darwin to use explicit progress messages");
            }
        }
        if (!CaCancelRecorded()) CheckProgressReply(SendProgress(2, ticks, 0));
    } catch (const InstallCanceledException&) {
        throw;
    } catch (const Exception& e) {
        LogInfo(L"Failed to sends a progress update. Error 0x%x.", e.Code());
    }
    if (CaCancelRecorded()) throw InstallCanceledException(L"User cancelled installation.");
}

void Session::ScheduleDeferred(std::wstring_view action, std::wstring_view data) const {
    const std::wstring name(action);
    const std::wstring text(data);
    UINT status = ::MsiSetPropertyW(install_, name.c_str(), text.c_str());
    if (status != ERROR_SUCCESS) {
        CaLogError(FailureFromWin32(status), "Failed to set CustomActionData for deferred action");
    } else {
        status = ::MsiDoActionW(install_, name.c_str());
        if (status == ERROR_INSTALL_USEREXIT) CaRecordCancel();
        if (status != ERROR_SUCCESS) CaLogError(FailureFromWin32(status), "Failed MsiDoAction on deferred action");
    }
    if (CaCancelRecorded()) throw InstallCanceledException(L"User cancelled installation.");
    ThrowIfMsiError(status, L"Failed to schedule: " + name);
}

void Session::AddRemoveFileRow(std::wstring_view fileKey, std::wstring_view component, std::wstring_view fileName,
                               std::wstring_view directoryProperty, int installMode) const {
    if (!CaIsInitialized()) Throw(kUnexpected, L"Custom action is not initialized.");
    LogInfo(L"Write record to RemoveFile table: %s, %s, %s, %s, %d.", fileKey, component, fileName,
            directoryProperty, installMode);
    try {
        ActiveDatabase().AddTempRecord(L"RemoveFile", {std::wstring(fileKey), std::wstring(component),
                                                       std::wstring(fileName), std::wstring(directoryProperty),
                                                       installMode});
    } catch (const Exception& e) {
        throw Exception(e.Code(), L"Failed to write record.");
    }
}

std::wstring Session::GenerateId() {
    UUID uuid;
    const RPC_STATUS status = ::UuidCreate(&uuid);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY) {
        Throw(HResultFromWin32(static_cast<DWORD>(status)), L"Failed to generate id.");
    }
    return Format(L"ID_%08X%04X%04X%02X%02X%02X%02X%02X%02X%02X%02X", uuid.Data1, uuid.Data2, uuid.Data3,
                  uuid.Data4[0], uuid.Data4[1], uuid.Data4[2], uuid.Data4[3], uuid.Data4[4], uuid.Data4[5],
                  uuid.Data4[6], uuid.Data4[7]);
}

std::vector<std::wstring> Session::FindFileInDirectory(std::wstring_view directory, std::wstring_view pattern) {
    const std::wstring dir(directory);
    LogInfo(L"Find file '%s' in directory '%s'.", pattern, dir);
    std::wstring search = dir;
    if (!search.empty() && search.back() != L'\\' && search.back() != L'/') search.push_back(L'\\');
    search.append(pattern);
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW entry;
    FindHandle find(::FindFirstFileW(search.c_str(), &entry));
    if (!find) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_NO_MORE_FILES) return names;
        Throw(FailureFromWin32(error), L"Failed to enumerate files in '" + dir + L"'.");
    }
    do {
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) names.emplace_back(entry.cFileName);
    } while (::FindNextFileW(find.Get(), &entry));
    const DWORD error = ::GetLastError();
    if (error != ERROR_NO_MORE_FILES) Throw(FailureFromWin32(error), L"Failed to enumerate files in '" + dir + L"'.");
    return names;
}

}  // namespace setup
