#pragma once
// The installer reads an information message's text as a template: "[name]"
// is replaced by a property's value and "[\x]" by the character x. Text that
// is logged as it is (paths, names, tool output) must have its square
// brackets escaped, or "[ProductName] notes.txt" would be logged as
// "My Product notes.txt" and "[SECRET]" would put a property into the log.

#include <string>
#include <string_view>

namespace setup {

// `text` with every '[' written as "[\[]" and every ']' as "[\]]".
std::wstring EscapeLogText(std::wstring_view text);

}  // namespace setup
