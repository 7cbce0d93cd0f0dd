#include "runtime/log_escape.h"

namespace setup {

std::wstring EscapeLogText(std::wstring_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        if (c == L'[') out.append(L"[\\[]");
        else if (c == L']') out.append(L"[\\]]");
        else out.push_back(c);
    }
    return out;
}

}  // namespace setup
