#pragma once
// The package database, its views and records.
//
// Each object shares ownership of its installer handle: copies are cheap and
// the handle closes with MsiCloseHandle when the last copy goes, so a record
// may outlive the view that fetched it. Every failure throws setup::Exception
// with the installer's error code and the text given below.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/unique_handle.h"

namespace setup {

// Takes ownership of a fresh handle: built unique-first, so that a failing
// allocation of the shared owner still closes the handle.
std::shared_ptr<MsiHandle> ShareHandle(MSIHANDLE handle);

class Record {
public:
    explicit Record(MSIHANDLE handle) : handle_(ShareHandle(handle)) {}
    // A record whose field count is known already (rows of one view share it):
    // saves a round trip to the installer per field read.
    Record(MSIHANDLE handle, unsigned fieldCount) : handle_(ShareHandle(handle)), fieldCount_(static_cast<int>(fieldCount)) {}
    // A new record with `fields` fields (plus field 0).
    static Record Create(unsigned fields);

    unsigned FieldCount() const;
    // Field numbers above FieldCount() throw "The value of an argument is outside the allowable range.".
    std::wstring GetString(unsigned field) const;       // "Failed to get string value of a record field."
    int GetInteger(unsigned field) const;                // MSI_NULL_INTEGER for an empty field
    int GetIntegerOr(unsigned field, int fallback) const;  // `fallback` for an empty field
    void SetString(unsigned field, std::wstring_view text);  // "Failed to sets a record field to a string field."

    MSIHANDLE Get() const { return handle_->Get(); }

private:
    void CheckField(unsigned field) const;
    std::shared_ptr<MsiHandle> handle_;
    mutable int fieldCount_ = -1;  // -1: not asked yet
};

class View {
public:
    explicit View(MSIHANDLE handle) : handle_(ShareHandle(handle)) {}

    void Execute();                      // "Failed to execute a SQL view query."
    void Execute(const Record& parameters);
    // The next row, or nothing after the last one.
    // Other failures: "Failed to fetch the next sequential record from the view."
    std::optional<Record> Fetch();

    MSIHANDLE Get() const { return handle_->Get(); }

private:
    std::shared_ptr<MsiHandle> handle_;
    int fieldCount_ = -1;  // of the first row fetched
};

class Database {
public:
    explicit Database(MSIHANDLE handle) : handle_(ShareHandle(handle)) {}
    // The session's active database ("Failed to get active database." when there is none,
    // as in deferred actions).
    static Database Active(MSIHANDLE hInstall);

    View OpenView(std::wstring_view query) const;  // "Failed to create a view object."
    // Runs a query without parameters and hands each row to `row`, in fetch order.
    void ForEachRow(std::wstring_view query, const std::function<void(const Record&)>& row) const;
    // False for a table the package lacks; other failures throw
    // "Failed to determines existing the table:" with the name.
    bool TableExists(std::wstring_view table) const;
    // The immediate actions' first step: when the package has `table`, runs
    // `query` over it like ForEachRow and returns true; when it does not,
    // logs "There is no '<table>' table." and returns false (not an error).
    bool ForEachRowOfTable(std::wstring_view table, std::wstring_view query,
                           const std::function<void(const Record&)>& row) const;

    MSIHANDLE Get() const { return handle_->Get(); }

private:
    std::shared_ptr<MsiHandle> handle_;
};

}  // namespace setup
