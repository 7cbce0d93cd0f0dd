#include "runtime/database.h"

#include "runtime/installer_calls.h"
#include "runtime/program_log.h"

#include "runtime/string_buffer.h"
#include "runtime/throw.h"

namespace setup {

std::shared_ptr<MsiHandle> ShareHandle(MSIHANDLE handle) {
    MsiHandle owner(handle);
    return std::make_shared<MsiHandle>(std::move(owner));
}

Record Record::Create(unsigned fields) {
    const MSIHANDLE handle = ::MsiCreateRecord(fields);
    if (handle == 0) Throw(kFail, L"Failed to create a record.");
    return Record(handle);
}

unsigned Record::FieldCount() const {
    if (fieldCount_ < 0) fieldCount_ = static_cast<int>(::MsiRecordGetFieldCount(Get()));
    return static_cast<unsigned>(fieldCount_);
}

void Record::CheckField(unsigned field) const {
    const UINT count = FieldCount();
    if (count == static_cast<UINT>(-1) || field > count) {
        Throw(kInvalidArgument, L"The value of an argument is outside the allowable range.");
    }
}

std::wstring Record::GetString(unsigned field) const {
    CheckField(field);
    std::wstring value;
    const UINT status = FetchInstallerString(
        [&](wchar_t* buffer, DWORD* size) { return ::MsiRecordGetStringW(Get(), field, buffer, size); }, value);
    ThrowIfMsiError(status, L"Failed to get string value of a record field.");
    return value;
}

int Record::GetInteger(unsigned field) const {
    CheckField(field);
    return ::MsiRecordGetInteger(Get(), field);
}

int Record::GetIntegerOr(unsigned field, int fallback) const {
    const int value = GetInteger(field);
    return value == static_cast<int>(MSI_NULL_INTEGER) ? fallback : value;
}


void Record::SetString(unsigned field, std::wstring_view text) {
    CheckField(field);
    const std::wstring copy(text);
    ThrowIfMsiError(::MsiRecordSetStringW(Get(), field, copy.c_str()),
                    L"Failed to sets a record field to a string field.");
}


void View::Execute() {
    ThrowIfMsiError(InstallerCall(::MsiViewExecute, Get(), 0), L"Failed to execute a SQL view query.");
}

void View::Execute(const Record& parameters) {
    ThrowIfMsiError(InstallerCall(::MsiViewExecute, Get(), parameters.Get()), L"Failed to execute a SQL view query.");
}

std::optional<Record> View::Fetch() {
    MSIHANDLE row = 0;
    const UINT status = InstallerCall(::MsiViewFetch, Get(), &row);
    if (status == ERROR_NO_MORE_ITEMS) return std::nullopt;
    ThrowIfMsiError(status, L"Failed to fetch the next sequential record from the view.");
    if (fieldCount_ < 0) {
        Record first(row);
        fieldCount_ = static_cast<int>(first.FieldCount());
        return first;
    }
    return Record(row, static_cast<unsigned>(fieldCount_));
}

Database Database::Active(MSIHANDLE hInstall) {
    const MSIHANDLE handle = InstallerCall(::MsiGetActiveDatabase, hInstall);
    if (handle == 0) Throw(kFail, L"Failed to get active database.");
    return Database(handle);
}

View Database::OpenView(std::wstring_view query) const {
    const std::wstring text(query);
    MSIHANDLE view = 0;
    ThrowIfMsiError(InstallerCall(::MsiDatabaseOpenViewW, Get(), text.c_str(), &view), L"Failed to create a view object.");
    return View(view);
}

void Database::ForEachRow(std::wstring_view query, const std::function<void(const Record&)>& row) const {
    View view = OpenView(query);
    view.Execute();
    while (const std::optional<Record> record = view.Fetch()) row(*record);
}

bool Database::ForEachRowOfTable(std::wstring_view table, std::wstring_view query,
                                 const std::function<void(const Record&)>& row) const {
    if (!TableExists(table)) {
        LogInfo(L"There is no '%s' table.", table);
        return false;
    }
    ForEachRow(query, row);
    return true;
}

bool Database::TableExists(std::wstring_view table) const {
    const std::wstring name(table);
    MsiHandle keys;
    const UINT status = InstallerCall(::MsiDatabaseGetPrimaryKeysW, Get(), name.c_str(), keys.Put());
    if (status == ERROR_INVALID_TABLE) return false;
    ThrowIfMsiError(status, L"Failed to determines existing the table:" + name);
    return true;
}


}  // namespace setup
