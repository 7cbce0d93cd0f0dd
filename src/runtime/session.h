#pragma once
// The installer session an action was called with. The session handle belongs
// to the installer; this object only borrows it for the call.
//
// Every failure throws setup::Exception with the failing call's code and the
// text given below; a cancel throws setup::InstallCanceledException.

#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/component_decision.h"
#include "runtime/database.h"
#include "runtime/win32.h"

namespace setup {

class Session {
public:
    explicit Session(MSIHANDLE hInstall) : install_(hInstall) {}

    // A property that is not set reads as empty text.
    std::wstring GetProperty(std::wstring_view name) const;  // "Failed to get msi property: <name>"
    void SetProperty(std::wstring_view name, std::wstring_view value) const;  // "Failed to set msi property: <name>"
    // The deferred side's data, as the installer hands it over.
    // The data ScheduleDeferred gave the action (brackets back as they were).
    std::wstring CustomActionData() const;

    // Resolves property references and the rest of the installer's formatting.
    // Text without a '[' has nothing to resolve and is returned as it is,
    // without asking the installer.
    std::wstring FormatText(std::wstring_view text) const;
    // The same for many texts, with as few installer calls as it can: texts
    // whose references close within themselves are formatted together, up to
    // some thousands of characters a call (see format_batch.h); any other text,
    // or a batch that does not split back, is formatted alone.
    std::vector<std::wstring> FormatTexts(const std::vector<std::wstring>& texts) const;

    // Both states preset to -1; the installer's result is returned beside them.
    UINT GetComponentState(std::wstring_view component, ComponentState& state) const;
    // MSICONDITION: 0 false, 1 true, 2 none (empty), 3 error.
    int EvaluateCondition(std::wstring_view condition) const;

    // True inside a deferred (scheduled) action.
    bool IsDeferred() const;

    // Hands `data` to the deferred action `action` and asks the installer to run it.
    void ScheduleDeferred(std::wstring_view action, std::wstring_view data) const;

    Database ActiveDatabase() const { return Database::Active(install_); }

    MSIHANDLE Get() const { return install_; }

private:
    MSIHANDLE install_;
    // One record for all formatting of this call: two round trips per text
    // instead of four. Shared by copies of the session.
    std::shared_ptr<std::optional<Record>> scratch_ = std::make_shared<std::optional<Record>>();
};

// Adds the actions' names to MsiHiddenProperties: the installer then keeps
// their data (which holds a secret) out of its log.
void HideActionData(const Session& session, std::initializer_list<const wchar_t*> actions);

// The session as the component decisions see it. A component's states are
// asked once per action (they do not change while it runs), and so is each
// distinct condition (the properties it reads do not change either); an
// empty condition is "none" without asking.
class SessionComponentStates final : public ComponentStates {
public:
    explicit SessionComponentStates(Session session) : session_(session) {}
    std::optional<ComponentState> State(std::wstring_view component) override;
    int EvaluateCondition(std::wstring_view condition) override;

private:
    Session session_;  // a borrowed handle: cheap to copy, nothing to dangle
    std::map<std::wstring, std::optional<ComponentState>, std::less<>> states_;
    std::map<std::wstring, int, std::less<>> conditions_;
};

// Formats the named text members of every row in place, all of them in one
// FormatTexts batch (a few installer calls for the whole table).
template <class Row>
void FormatRowTexts(const Session& session, std::vector<Row>& rows, std::initializer_list<std::wstring Row::*> members) {
    std::vector<std::wstring> texts;
    texts.reserve(rows.size() * members.size());
    for (const Row& row : rows) {
        for (std::wstring Row::*member : members) texts.push_back(row.*member);
    }
    texts = session.FormatTexts(texts);
    std::size_t next = 0;
    for (Row& row : rows) {
        for (std::wstring Row::*member : members) row.*member = std::move(texts[next++]);
    }
}

}  // namespace setup
