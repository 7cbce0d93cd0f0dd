#pragma once
// The records the library keeps on the machine between its actions: text
// values under a key of its own, "Software\Setup Utils\...", in HKLM (HKCU
// for what belongs to the user), in the process's own registry view. One
// store per family and product ("Software\Setup Utils\XmlFile\{product}"),
// and one for the work folders of the deferred actions.
//
// A record is read back exactly as written: the REG_SZ bytes, its one
// terminating NUL dropped, nothing trimmed. Users cannot write under HKLM's
// key, so what a record names is what the library wrote.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace setup {

class RecordStore {
public:
    RecordStore(bool perUser, std::wstring key) : perUser_(perUser), key_(std::move(key)) {}
    // "Software\Setup Utils\<family>\<product>".
    static RecordStore ForProduct(std::wstring_view family, std::wstring_view product, bool perUser = false);

    const std::wstring& Key() const { return key_; }

    // The record, or nothing when it (or the key) is missing or is no REG_SZ.
    std::optional<std::wstring> Read(std::wstring_view name) const;
    // Every record of the key (name, text); empty when the key is missing.
    std::vector<std::pair<std::wstring, std::wstring>> ReadAll() const;
    // Creates the key as needed. Throws "Failed to create registry key '<key>'."
    // or "Failed to write registry value: Key '<key>', Name '<name>'.".
    void Write(std::wstring_view name, std::wstring_view text) const;
    // Deletes the record, then the keys it leaves empty up to and including
    // "Software\Setup Utils" (each logged: "Removed empty registry key '%s'.").
    // Never throws.
    void Remove(std::wstring_view name) const;
    // The stores of the same family's other products (the siblings of this key).
    std::vector<RecordStore> Siblings() const;

private:
    bool perUser_;
    std::wstring key_;
};

}  // namespace setup
