#include "services/process_output.h"

namespace setup {

std::vector<std::string> OutputLineSplitter::Push(std::string_view bytes) {
    // A CR at the end of the pending text may be the first half of a CR LF.
    std::size_t searchFrom = pending_.empty() ? 0 : pending_.size() - 1;
    pending_.append(bytes);
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = pending_.find("\r\n", searchFrom);
        if (end == std::string::npos) break;
        if (end > start) lines.emplace_back(pending_, start, end - start);
        start = end + 2;
        searchFrom = start;
    }
    pending_.erase(0, start);
    return lines;
}

std::vector<std::string> OutputLineSplitter::Finish() {
    std::vector<std::string> lines;
    if (!pending_.empty()) lines.push_back(std::move(pending_));
    pending_.clear();
    return lines;
}

}  // namespace setup
