#include "services/file_operations.h"

#include <rpc.h>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/path.h"

namespace setup {

namespace {

HResult LastErrorHResult() { return FailureFromWin32(::GetLastError()); }

// Queues `from` to become `to` at restart (`to` empty: delete `from`).
bool QueueAtRestart(const std::wstring& from, const std::wstring* to) {
    return ::MoveFileExW(from.c_str(), to ? to->c_str() : nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) != FALSE;
}

// Queues, for the next restart, the deletion of `to` and then the rename of
// `from` onto it; the order matters, the deletion must come first. Throws
// `failure` with the last error when the system refuses either entry.
void QueueReplacementAtRestart(const std::wstring& from, const std::wstring& to, const std::wstring& failure) {
    if (!QueueAtRestart(to, nullptr) || !QueueAtRestart(from, &to)) Throw(LastErrorHResult(), failure);
}

struct RpcString {
    RPC_WSTR text = nullptr;
    ~RpcString() {
        if (text) ::RpcStringFreeW(&text);
    }
};

}  // namespace

std::wstring CreateUuidString() {
    UUID uuid;
    const RPC_STATUS created = ::UuidCreate(&uuid);
    if (created != RPC_S_OK && created != RPC_S_UUID_LOCAL_ONLY) {
        Throw(FailureFromWin32(static_cast<DWORD>(created)), L"Failed to create uuid.");
    }
    RpcString text;
    const RPC_STATUS converted = ::UuidToStringW(&uuid, &text.text);
    if (converted != RPC_S_OK) Throw(FailureFromWin32(static_cast<DWORD>(converted)), L"Failed to convert uuid to string.");
    return std::wstring(reinterpret_cast<const wchar_t*>(text.text));
}

void MoveFileOnReboot(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    LogInfo(L"Move file on reboot '%s' -> '%s'.", from, to);
    QueueReplacementAtRestart(from, to, L"Failed to move file on reboot '" + from + L"' -> '" + to + L"'.");
}

void RemoveFileOnReboot(std::wstring_view path) {
    const std::wstring name(path);
    LogInfo(L"Remove file on reboot '%s'.", name);
    if (!QueueAtRestart(name, nullptr)) Throw(LastErrorHResult(), L"Failed to remove file on reboot " + name);
}

void RemoveFileWithFallback(std::wstring_view path, bool allowReboot) {
    const std::wstring name(path);
    LogInfo(L"Remove file '%s'.", name);
    if (::DeleteFileW(name.c_str())) return;
    if (!allowReboot) Throw(LastErrorHResult(), L"Failed to remove file " + name);
    RemoveFileOnReboot(name);
}

bool FileExists(std::wstring_view path) {
    const std::wstring name(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

Wow64FsRedirectionGuard::Wow64FsRedirectionGuard() {
    using DisableFn = BOOL(WINAPI*)(PVOID*);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    const auto disable = GetProcedure<DisableFn>(kernel, "Wow64DisableWow64FsRedirection");
    revert_ = GetProcedure<RevertFn>(kernel, "Wow64RevertWow64FsRedirection");
    if (disable) disabled_ = disable(&oldValue_);
}

Wow64FsRedirectionGuard::~Wow64FsRedirectionGuard() {
    if (revert_ && disabled_) revert_(oldValue_);
}

}  // namespace setup
