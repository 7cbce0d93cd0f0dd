#pragma once
// The installer reads an information message's text as a template: "[name]"
// is replaced by a property's value and "[\x]" by the character x. Text that
// is logged as it is (paths, names, tool output) must have its square
// brackets escaped, or "[ProductName] notes.txt" would be logged as
// "My Product notes.txt" and "[SECRET]" would put a property into the log.

#include <string>
#include <string_view>
#include <vector>

namespace setup {

// `text` with every '[' written as "[\[]" and every ']' as "[\]]".
std::wstring EscapeLogText(std::wstring_view text);

// Values shorter than this are not masked: a one- or two-character value
// would blot out every such character of the log and protect nothing.
inline constexpr std::size_t kShortestMaskedSecret = 4;

// `text` with every occurrence of each secret (the values of the properties
// named in MsiHiddenProperties) replaced by "***"; longer secrets first.
std::wstring MaskSecrets(std::wstring_view text, const std::vector<std::wstring>& secrets);

}  // namespace setup
