#pragma once
// Custom action data: the text that carries an immediate action's decisions to
// its deferred, rollback and commit actions.
//
// A PropertyMap is an ordered map of wide keys to wide values (ordered by code
// unit). Encode writes "key=value" pairs joined by the pair separator, doubling
// every pair separator inside a value; keys are written as they are, and the
// key/value separator is never escaped (only the first one of an entry splits).
// Decode is the inverse and never fails: malformed text yields whatever entries
// the rules produce, entries with an empty key are dropped, later duplicates win.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace setup {

class PropertyMap {
public:
    using Entries = std::map<std::wstring, std::wstring, std::less<>>;

    // Insert or replace; an empty key is never stored.
    void Set(std::wstring_view key, std::wstring_view value);
    void Set(std::wstring_view key, int value);  // stored as decimal text

    // The value, or empty text when the key is absent.
    std::wstring Get(std::wstring_view key) const;
    // The same without a copy; valid while the map lives and the key is not set again.
    std::wstring_view View(std::wstring_view key) const;
    // The value read as a decimal integer: leading blanks, an optional sign and
    // the digits that follow; empty or non-numeric text reads as 0.
    int GetInteger(std::wstring_view key) const;
    bool Contains(std::wstring_view key) const { return entries_.find(key) != entries_.end(); }

    std::size_t Size() const { return entries_.size(); }
    bool Empty() const { return entries_.empty(); }
    const Entries& AllEntries() const { return entries_; }
    bool operator==(const PropertyMap& other) const { return entries_ == other.entries_; }

private:
    Entries entries_;
};

std::wstring Encode(const PropertyMap& map, wchar_t pairSeparator, wchar_t keyValueSeparator);
PropertyMap Decode(std::wstring_view text, wchar_t pairSeparator, wchar_t keyValueSeparator);

// The decimal reading of PropertyMap::GetInteger, for any text.
int ParseInteger(std::wstring_view text);

}  // namespace setup
