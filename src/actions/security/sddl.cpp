#include "actions/security/sddl.h"

namespace setup {

namespace {

// The flag spellings SDDL uses in a DACL's flags and in an entry's flags.
constexpr std::wstring_view kFlags[] = {L"NO_ACCESS_CONTROL", L"AI", L"AR", L"P", L"OI", L"CI", L"NP", L"IO", L"ID",
                                        L"SA", L"FA", L"TP", L"CR"};

std::vector<std::wstring_view> SplitFlags(std::wstring_view flags, bool* ok) {
    std::vector<std::wstring_view> out;
    *ok = true;
    while (!flags.empty()) {
        bool found = false;
        for (std::wstring_view flag : kFlags) {
            if (flags.substr(0, flag.size()) == flag) {
                out.push_back(flag);
                flags.remove_prefix(flag.size());
                found = true;
                break;
            }
        }
        if (!found) {
            *ok = false;
            return out;
        }
    }
    return out;
}

// The start of the next section ("O:", "G:", "D:", "S:") at or after `from`.
std::size_t NextSection(std::wstring_view text, std::size_t from) {
    int depth = 0;
    for (std::size_t i = from; i + 1 < text.size(); ++i) {
        if (text[i] == L'(') ++depth;
        if (text[i] == L')') --depth;
        if (depth == 0 && text[i + 1] == L':' &&
            (text[i] == L'O' || text[i] == L'G' || text[i] == L'D' || text[i] == L'S')) {
            return i;
        }
    }
    return text.size();
}

bool ParseAces(std::wstring_view text, std::vector<SddlAce>& aces, std::wstring* why) {
    while (!text.empty()) {
        if (text.front() != L'(') {
            if (why) *why = L"an entry does not begin with '(' at '" + std::wstring(text.substr(0, 12)) + L"'";
            return false;
        }
        const std::size_t close = text.find(L')');
        if (close == std::wstring_view::npos) {
            if (why) *why = L"an entry is not closed with ')'";
            return false;
        }
        std::vector<std::wstring> fields;
        std::wstring_view body = text.substr(1, close - 1);
        for (std::size_t at = 0;;) {
            const std::size_t semicolon = body.find(L';', at);
            if (semicolon == std::wstring_view::npos || fields.size() == 5) {
                fields.emplace_back(body.substr(at));
                break;
            }
            fields.emplace_back(body.substr(at, semicolon - at));
            at = semicolon + 1;
        }
        if (fields.size() < 6) {
            if (why) *why = L"the entry '(" + std::wstring(body) + L")' does not have six fields";
            return false;
        }
        SddlAce ace{fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], {}};
        if (const std::size_t more = ace.account.find(L';'); more != std::wstring::npos) {
            ace.rest = ace.account.substr(more);
            ace.account.resize(more);
        }
        bool ok = true;
        SplitFlags(ace.flags, &ok);
        if (ace.type.empty() || !ok || ace.rights.empty() || ace.account.empty()) {
            if (why) *why = L"the entry '(" + std::wstring(body) + L")' is not type;flags;rights;;;account";
            return false;
        }
        aces.push_back(std::move(ace));
        text.remove_prefix(close + 1);
    }
    return true;
}

}  // namespace

bool SddlAce::Inherited() const { return HasFlag(flags, L"ID"); }

std::wstring SddlAce::Text() const {
    return L"(" + type + L";" + flags + L";" + rights + L";" + objectGuid + L";" + inheritGuid + L";" + account +
           rest + L")";
}

std::wstring Sddl::Text() const {
    std::wstring text;
    if (!owner.empty()) text += L"O:" + owner;
    if (!group.empty()) text += L"G:" + group;
    if (hasDacl) {
        text += L"D:" + daclFlags;
        for (const SddlAce& ace : dacl) text += ace.Text();
    }
    return text + sacl;
}

bool HasFlag(std::wstring_view flags, std::wstring_view flag) {
    bool ok = true;
    for (std::wstring_view f : SplitFlags(flags, &ok)) {
        if (f == flag) return true;
    }
    return false;
}

std::wstring WithoutFlag(std::wstring_view flags, std::wstring_view flag) {
    bool ok = true;
    std::wstring out;
    for (std::wstring_view f : SplitFlags(flags, &ok)) {
        if (f != flag) out += f;
    }
    return out;
}

std::optional<Sddl> ParseSddl(std::wstring_view text, std::wstring* why) {
    Sddl sddl;
    std::size_t at = 0;
    if (text.empty()) {
        if (why) *why = L"it is empty";
        return std::nullopt;
    }
    while (at < text.size()) {
        if (at + 1 >= text.size() || text[at + 1] != L':') {
            if (why) *why = L"a part does not begin with O:, G:, D: or S: at '" + std::wstring(text.substr(at, 12)) + L"'";
            return std::nullopt;
        }
        const wchar_t part = text[at];
        const std::size_t end = NextSection(text, at + 2);
        const std::wstring_view body = text.substr(at + 2, end - at - 2);
        switch (part) {
        case L'O': sddl.owner = body; break;
        case L'G': sddl.group = body; break;
        case L'S': sddl.sacl = std::wstring(text.substr(at, end - at)); break;
        case L'D': {
            sddl.hasDacl = true;
            const std::size_t open = body.find(L'(');
            sddl.daclFlags = body.substr(0, open == std::wstring_view::npos ? body.size() : open);
            bool ok = true;
            SplitFlags(sddl.daclFlags, &ok);
            if (!ok) {
                if (why) *why = L"the DACL flags '" + sddl.daclFlags + L"' are none of P, AI, AR";
                return std::nullopt;
            }
            if (open != std::wstring_view::npos && !ParseAces(body.substr(open), sddl.dacl, why)) return std::nullopt;
            break;
        }
        default:
            if (why) *why = L"a part does not begin with O:, G:, D: or S:";
            return std::nullopt;
        }
        at = end;
    }
    if ((!sddl.owner.empty() && sddl.owner.find_first_of(L"()") != std::wstring::npos) ||
        (!sddl.group.empty() && sddl.group.find_first_of(L"()") != std::wstring::npos)) {
        if (why) *why = L"an owner or group holds '(' or ')'";
        return std::nullopt;
    }
    return sddl;
}

}  // namespace setup
