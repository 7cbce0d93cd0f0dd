#pragma once
// How a child process's output becomes log lines (portable).

#include <string>
#include <string_view>
#include <vector>

namespace setup {

// The non-empty pieces of one chunk of output between CR LF pairs, in order.
// Chunks are split on their own: a line that arrives in two reads comes out
// as two pieces.
std::vector<std::wstring> SplitOutputLines(std::wstring_view chunk);

}  // namespace setup
