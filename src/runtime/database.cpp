#include "runtime/database.h"

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

unsigned Record::FieldCount() const { return ::MsiRecordGetFieldCount(Get()); }

void Record::CheckField(unsigned field) const {
    const UINT count = ::MsiRecordGetFieldCount(Get());
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

bool Record::IsNull(unsigned field) const {
    CheckField(field);
    return ::MsiRecordIsNull(Get(), field) != FALSE;
}

void Record::SetString(unsigned field, std::wstring_view text) {
    CheckField(field);
    const std::wstring copy(text);
    ThrowIfMsiError(::MsiRecordSetStringW(Get(), field, copy.c_str()),
                    L"Failed to sets a record field to a string field.");
}

void Record::SetInteger(unsigned field, int value) {
    CheckField(field);
    ThrowIfMsiError(::MsiRecordSetInteger(Get(), field, value), L"Failed to sets a record field to an integer.");
}

void View::Execute() {
    ThrowIfMsiError(::MsiViewExecute(Get(), 0), L"Failed to execute a SQL view query.");
}

void View::Execute(const Record& parameters) {
    ThrowIfMsiError(::MsiViewExecute(Get(), parameters.Get()), L"Failed to execute a SQL view query.");
}

std::optional<Record> View::Fetch() {
    MSIHANDLE row = 0;
    const UINT status = ::MsiViewFetch(Get(), &row);
    if (status == ERROR_NO_MORE_ITEMS) return std::nullopt;
    ThrowIfMsiError(status, L"Failed to fetch the next sequential record from the view.");
    return Record(row);
}

Database Database::Active(MSIHANDLE hInstall) {
    const MSIHANDLE handle = ::MsiGetActiveDatabase(hInstall);
    if (handle == 0) Throw(kFail, L"Failed to get active database.");
    return Database(handle);
}

View Database::OpenView(std::wstring_view query) const {
    const std::wstring text(query);
    MSIHANDLE view = 0;
    ThrowIfMsiError(::MsiDatabaseOpenViewW(Get(), text.c_str(), &view), L"Failed to create a view object.");
    return View(view);
}

void Database::ForEachRow(std::wstring_view query, const std::function<void(const Record&)>& row) const {
    View view = OpenView(query);
    view.Execute();
    while (const std::optional<Record> record = view.Fetch()) row(*record);
}

bool Database::TableExists(std::wstring_view table) const {
    const std::wstring name(table);
    MsiHandle keys;
    const UINT status = ::MsiDatabaseGetPrimaryKeysW(Get(), name.c_str(), keys.Put());
    if (status == ERROR_INVALID_TABLE) return false;
    ThrowIfMsiError(status, L"Failed to determines existing the table:" + name);
    return true;
}

void Database::AddTempRecord(std::wstring_view table, const std::vector<FieldValue>& values) const {
    View view = OpenView(L"SELECT * FROM `" + std::wstring(table) + L"`");
    view.Execute();
    MSIHANDLE typesHandle = 0;
    ThrowIfMsiError(::MsiViewGetColumnInfo(view.Get(), MSICOLINFO_TYPES, &typesHandle),
                    L"Failed to read the columns of table " + std::wstring(table));
    const Record types(typesHandle);
    const unsigned columns = types.FieldCount();
    if (values.size() > columns) Throw(kInvalidArgument, L"Too many values for table " + std::wstring(table));

    Record row = Record::Create(columns);
    for (unsigned i = 0; i < values.size(); ++i) {
        const unsigned field = i + 1;
        const std::wstring type = types.GetString(field);
        const bool integerColumn = !type.empty() && (type[0] == L'i' || type[0] == L'I' || type[0] == L'j' ||
                                                     type[0] == L'J');
        if (const auto* number = std::get_if<int>(&values[i])) {
            if (integerColumn) row.SetInteger(field, *number);
            else row.SetString(field, std::to_wstring(*number));
        } else {
            row.SetString(field, std::get<std::wstring>(values[i]));
        }
    }
    const UINT valid = ::MsiViewModify(view.Get(), MSIMODIFY_VALIDATE_NEW, row.Get());
    if (valid != ERROR_SUCCESS) {
        // Column names are identifiers of at most 72 characters.
        wchar_t column[128] = {};
        DWORD size = 128;
        ::MsiViewGetErrorW(view.Get(), column, &size);
        Throw(FailureFromWin32(valid),
              L"Failed to validate a temporary row of table " + std::wstring(table) + L": column '" + std::wstring(column) + L"'.");
    }
    ThrowIfMsiError(::MsiViewModify(view.Get(), MSIMODIFY_INSERT_TEMPORARY, row.Get()),
                    L"Failed to insert a temporary row into table " + std::wstring(table));
}

}  // namespace setup
