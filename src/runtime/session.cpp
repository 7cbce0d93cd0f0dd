#include "runtime/session.h"

#include "runtime/action_data.h"
#include "runtime/ca_runtime.h"
#include "runtime/format_batch.h"
#include "runtime/installer_calls.h"
#include "runtime/string_buffer.h"
#include "runtime/throw.h"

namespace setup {

void HideActionData(const Session& session, std::initializer_list<const wchar_t*> actions) {
    std::wstring hidden = session.GetProperty(L"MsiHiddenProperties");
    for (const wchar_t* name : actions) hidden += (hidden.empty() ? L"" : L";") + std::wstring(name);
    session.SetProperty(L"MsiHiddenProperties", hidden);
}

std::wstring Session::GetProperty(std::wstring_view name) const {
    const std::wstring key(name);
    std::wstring value;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return InstallerCall(::MsiGetPropertyW, install_, key.c_str(), buffer, size); }, value);
    ThrowIfMsiError(status, L"Failed to get msi property: " + key);
    return value;
}

void Session::SetProperty(std::wstring_view name, std::wstring_view value) const {
    const std::wstring key(name);
    const std::wstring text(value);
    ThrowIfMsiError(InstallerCall(::MsiSetPropertyW, install_, key.c_str(), text.c_str()), L"Failed to set msi property: " + key);
}

std::wstring Session::FormatText(std::wstring_view text) const {
    if (text.find(L'[') == std::wstring_view::npos) return std::wstring(text);
    if (!*scratch_) *scratch_ = Record::Create(0);
    Record& record = **scratch_;
    record.SetString(0, text);
    std::wstring formatted;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return InstallerCall(::MsiFormatRecordW, install_, record.Get(), buffer, size); },
        formatted);
    ThrowIfMsiError(status, L"Failed formats record field data and properties using a format string.");
    return formatted;
}

std::vector<std::wstring> Session::FormatTexts(const std::vector<std::wstring>& texts) const {
    constexpr std::size_t kBatchCharacters = 16384;
    std::vector<std::wstring> formatted(texts.size());
    std::vector<std::size_t> batch;  // indices of the texts in the batch
    std::wstring joined;
    const auto flush = [&] {
        if (batch.empty()) return;
        const std::vector<std::wstring> pieces =
            batch.size() == 1 ? std::vector<std::wstring>{} : SplitFormattedBatch(FormatText(joined), batch.size());
        for (std::size_t k = 0; k < batch.size(); ++k) {
            formatted[batch[k]] = pieces.empty() ? FormatText(texts[batch[k]]) : pieces[k];
        }
        batch.clear();
        joined.clear();
    };
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::wstring& text = texts[i];
        if (text.find(L'[') == std::wstring::npos) {
            formatted[i] = text;
        } else if (!FormatsInBatch(text)) {
            formatted[i] = FormatText(text);
        } else {
            if (!joined.empty() && joined.size() + text.size() >= kBatchCharacters) flush();
            if (!batch.empty()) joined.push_back(kFormatSeparator);
            joined += text;
            batch.push_back(i);
        }
    }
    flush();
    return formatted;
}

UINT Session::GetComponentState(std::wstring_view component, ComponentState& state) const {
    const std::wstring key(component);
    INSTALLSTATE installed = INSTALLSTATE_UNKNOWN;
    INSTALLSTATE action = INSTALLSTATE_UNKNOWN;
    const UINT status = InstallerCall(::MsiGetComponentStateW, install_, key.c_str(), &installed, &action);
    state.installed = installed;
    state.action = action;
    return status;
}

std::optional<ComponentState> SessionComponentStates::State(std::wstring_view component) {
    const auto known = states_.find(component);
    if (known != states_.end()) return known->second;
    ComponentState state;
    std::optional<ComponentState> result;
    if (session_.GetComponentState(component, state) == ERROR_SUCCESS) result = state;
    states_.emplace(std::wstring(component), result);
    return result;
}

int SessionComponentStates::EvaluateCondition(std::wstring_view condition) {
    if (condition.empty()) return kConditionNone;  // what the installer answers for no condition
    const auto known = conditions_.find(condition);
    if (known != conditions_.end()) return known->second;
    const int result = session_.EvaluateCondition(condition);
    conditions_.emplace(std::wstring(condition), result);
    return result;
}

bool Session::IsDeferred() const { return InstallerCall(::MsiGetMode, install_, MSIRUNMODE_SCHEDULED) != FALSE; }

int Session::EvaluateCondition(std::wstring_view condition) const {
    const std::wstring text(condition);
    return static_cast<int>(InstallerCall(::MsiEvaluateConditionW, install_, text.c_str()));
}

std::wstring Session::CustomActionData() const { return UnescapeFormatting(GetProperty(L"CustomActionData")); }

void Session::ScheduleDeferred(std::wstring_view action, std::wstring_view data) const {
    const std::wstring name(action);
    const std::wstring text = EscapeFormatting(data);
    UINT status = InstallerCall(::MsiSetPropertyW, install_, name.c_str(), text.c_str());
    if (status != ERROR_SUCCESS) {
        CaLogError(FailureFromWin32(status), "Failed to set CustomActionData for deferred action");
    } else {
        status = InstallerCall(::MsiDoActionW, install_, name.c_str());
        if (status == ERROR_INSTALL_USEREXIT) CaRecordCancel();
        if (status != ERROR_SUCCESS) CaLogError(FailureFromWin32(status), "Failed MsiDoAction on deferred action");
    }
    if (CaCancelRecorded()) throw InstallCanceledException(L"User cancelled installation.");
    ThrowIfMsiError(status, L"Failed to schedule: " + name);
}

}  // namespace setup
