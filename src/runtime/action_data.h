#pragma once
// The three levels in which features nest their custom action data, as one
// API so that no feature writes separators by hand:
//   action data  "|" between pairs, "=" between key and value;
//   a list       ";" between entries, "*" between key and value;
//   a record     "^" between pairs, ">" between key and value.
// Each level escapes only its own pair separator, so a value that holds
// encoded text is escaped once more by every level that encloses it.
//
// List entries are keyed by their position as eight zero-padded digits, so the
// map's key order is the list's order.

#include <string>
#include <string_view>
#include <vector>

#include "runtime/property_map.h"

namespace setup {

struct Separators {
    wchar_t pair;
    wchar_t keyValue;
};

inline constexpr Separators kActionDataLevel{L'|', L'='};
inline constexpr Separators kListLevel{L';', L'*'};
inline constexpr Separators kRecordLevel{L'^', L'>'};

inline std::wstring Encode(const PropertyMap& map, Separators level) {
    return Encode(map, level.pair, level.keyValue);
}
inline PropertyMap Decode(std::wstring_view text, Separators level) {
    return Decode(text, level.pair, level.keyValue);
}

inline std::wstring EncodeActionData(const PropertyMap& data) { return Encode(data, kActionDataLevel); }
inline PropertyMap DecodeActionData(std::wstring_view text) { return Decode(text, kActionDataLevel); }

// The key of the list entry at `index`: "00000000", "00000001", ...
std::wstring ListKey(std::size_t index);

// A list of records: each record at the record level, the records at the list level.
std::wstring EncodeRecordList(const std::vector<PropertyMap>& records);
std::vector<PropertyMap> DecodeRecordList(std::wstring_view text);

// A list of plain texts at the list level.
std::wstring EncodeTextList(const std::vector<std::wstring>& texts);
std::vector<std::wstring> DecodeTextList(std::wstring_view text);

// Wine's installer formats scheduled data more than once: every property
// when it lists them at the end of a session, and each deferred action's
// whole data with its name when it logs the action's start (twice), whether
// or not anything is logged. Each "[...]" and "{...}" is read as a reference
// or group and the whole text copied once per group, so data full of them
// (XML positions, INI sections, product codes per item) costs time that grows
// with the square of its length: 18 s for 490 KB of XmlFile records, two
// minutes per deferred action for 10,000 cabinets. Wine also ends the data at
// its first "<=>". Scheduled data therefore travels with those characters
// escaped: data holding none of "[]{}<" (and not starting with U+E000) goes
// as it is; other data goes as U+E000 followed by the text with "[", "]",
// "{", "}", "<" as U+E001, U+E002, U+E004, U+E005, U+E006, and any of
// U+E000..U+E006 after U+E003. UnescapeFormatting takes anything else (data a
// package set itself) as it is.
std::wstring EscapeFormatting(std::wstring_view data);
std::wstring UnescapeFormatting(std::wstring_view data);

}  // namespace setup
