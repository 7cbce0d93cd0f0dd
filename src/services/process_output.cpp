#include "services/process_output.h"

namespace setup {

std::vector<std::wstring> SplitOutputLines(std::wstring_view chunk) {
    constexpr std::wstring_view kLineEnd = L"\r\n";
    std::vector<std::wstring> lines;
    std::size_t start = 0;
    while (start <= chunk.size()) {
        std::size_t end = chunk.find(kLineEnd, start);
        if (end == std::wstring_view::npos) end = chunk.size();
        if (end > start) lines.emplace_back(chunk.substr(start, end - start));
        start = end + kLineEnd.size();
    }
    return lines;
}

}  // namespace setup
