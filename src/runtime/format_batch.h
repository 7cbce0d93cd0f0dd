#pragma once
// Formatting many texts in one installer call: texts are joined by a
// separator that the installer's formatting copies as it is (the unit
// separator, U+001F), formatted together and split again. That is sound only
// for texts whose property references and conditional groups close within
// the text: a '[' or '{' left open would reach across the separator.

#include <string>
#include <string_view>
#include <vector>

namespace setup {

inline constexpr wchar_t kFormatSeparator = L'\x1F';

// True when `text` can travel with others: every '[' and '{' it opens it also
// closes ("[\x]" escapes count as closed), and it holds no separator.
bool FormatsInBatch(std::wstring_view text);

// `formatted` split at the separator into exactly `count` pieces, or nothing
// (empty) when it does not split so: the caller then formats each text alone.
std::vector<std::wstring> SplitFormattedBatch(std::wstring_view formatted, std::size_t count);

}  // namespace setup
