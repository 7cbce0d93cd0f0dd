#include "runtime/log_escape.h"

#include <algorithm>

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

std::wstring MaskSecrets(std::wstring_view text, const std::vector<std::wstring>& secrets) {
    std::wstring out(text);
    std::vector<const std::wstring*> order;
    for (const std::wstring& secret : secrets) {
        if (secret.size() >= kShortestMaskedSecret) order.push_back(&secret);
    }
    // A secret that holds another is masked whole before the shorter one can cut it.
    std::sort(order.begin(), order.end(), [](auto* a, auto* b) { return a->size() > b->size(); });
    for (const std::wstring* secret : order) {
        for (std::size_t at = out.find(*secret); at != std::wstring::npos; at = out.find(*secret, at + 3)) {
            out.replace(at, secret->size(), L"***");
        }
    }
    return out;
}

}  // namespace setup
