#include "runtime/format_batch.h"

namespace setup {

bool FormatsInBatch(std::wstring_view text) {
    int brackets = 0;
    int braces = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (c == kFormatSeparator) return false;
        if (c == L'[' && i + 3 < text.size() && text[i + 1] == L'\\' && text[i + 3] == L']') {
            i += 3;  // "[\x]": the character x itself
        } else if (c == L'[') {
            ++brackets;
        } else if (c == L']' && brackets > 0) {
            --brackets;
        } else if (c == L'{') {
            ++braces;
        } else if (c == L'}' && braces > 0) {
            --braces;
        }
    }
    return brackets == 0 && braces == 0;
}

std::vector<std::wstring> SplitFormattedBatch(std::wstring_view formatted, std::size_t count) {
    std::vector<std::wstring> pieces;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = formatted.find(kFormatSeparator, start);
        pieces.emplace_back(formatted.substr(start, end == std::wstring_view::npos ? end : end - start));
        if (end == std::wstring_view::npos) break;
        start = end + 1;
    }
    if (pieces.size() != count) pieces.clear();
    return pieces;
}

}  // namespace setup
