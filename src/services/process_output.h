#pragma once
// How a child process's output becomes log lines (portable).

#include <string>
#include <string_view>
#include <vector>

namespace setup {

// Cuts a byte stream into lines at CR LF, whatever the sizes of the reads that
// deliver it: a line (or a CR LF, or a multi-byte character) cut by a read
// boundary waits for the rest. Empty lines are dropped; a lone CR or LF stays
// part of its line.
class OutputLineSplitter {
public:
    // The lines that `bytes` completes, in order, without their CR LF.
    std::vector<std::string> Push(std::string_view bytes);
    // What is left after the stream ended, as a last line (none when empty).
    std::vector<std::string> Finish();

private:
    std::string pending_;
};

}  // namespace setup
