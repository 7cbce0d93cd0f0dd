#include "runtime/program_log.h"

#include <mutex>

#include "runtime/ca_runtime.h"
#include "runtime/installer_calls.h"
#include "runtime/log_buffer.h"
#include "runtime/log_escape.h"
#include "runtime/unique_handle.h"

namespace setup {

namespace {

void SendToInstaller(const std::wstring& message) {
    MsiHandle record(::MsiCreateRecord(1));
    if (!record) return;
    if (::MsiRecordSetStringW(record.Get(), 0, message.c_str()) != ERROR_SUCCESS) return;
    // The reply to an information message carries nothing we act on.
    InstallerCall(::MsiProcessMessage, CaInstallHandle(), INSTALLMESSAGE_INFO, record.Get());
}

std::mutex g_secretsLock;
std::vector<std::wstring> g_secrets;

LogBuffer& Buffer() {
    static LogBuffer buffer(&SendToInstaller);
    return buffer;
}

}  // namespace

void LogLine(const std::wstring& text) {
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    const std::string name = CaLogName();
    // The installer reads field 0 as a template: "[\[]" and "[\]]" come out as
    // literal brackets instead of starting a property reference.
    std::wstring line = Format(L"%S (%02x:%04x) [\\[]%02i:%02i:%02i:%03i[\\]]: ", name,
                               ::GetCurrentProcessId(), ::GetCurrentThreadId(), now.wHour, now.wMinute,
                               now.wSecond, now.wMilliseconds);
    // The text itself is escaped too: a path or a tool's output holding
    // brackets is logged as it is, never expanded.
    {
        std::lock_guard<std::mutex> guard(g_secretsLock);
        line.append(EscapeLogText(g_secrets.empty() ? text : MaskSecrets(text, g_secrets)));
    }
    Buffer().Append(line);
}

void SetLogSecrets(std::vector<std::wstring> secrets) {
    std::lock_guard<std::mutex> guard(g_secretsLock);
    g_secrets = std::move(secrets);
}

std::wstring MaskLogSecrets(std::wstring_view text) {
    std::lock_guard<std::mutex> guard(g_secretsLock);
    return g_secrets.empty() ? std::wstring(text) : MaskSecrets(text, g_secrets);
}

void LogNothingToSchedule(std::size_t rows, std::wstring_view table, std::wstring_view task) {
    LogInfo(L"Nothing to schedule: none of the %u %s rows is for a component being %s.", rows, std::wstring(table),
            std::wstring(task));
}

bool HoldsLogSecret(std::wstring_view text) {
    std::lock_guard<std::mutex> guard(g_secretsLock);
    return !g_secrets.empty() && MaskSecrets(text, g_secrets) != text;
}

void SetLogBatch(unsigned threshold) { Buffer().SetThreshold(threshold); }

void FlushLog() { Buffer().Flush(); }

void DiscardLog() noexcept { Buffer().Discard(); }

}  // namespace setup
