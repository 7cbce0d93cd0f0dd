#include "runtime/action_data.h"

#include <string_view>

#include "runtime/format.h"

namespace setup {

std::wstring ListKey(std::size_t index) { return Format(L"%08u", index); }

std::wstring EncodeRecordList(const std::vector<PropertyMap>& records) {
    PropertyMap list;
    for (std::size_t i = 0; i < records.size(); ++i) list.Set(ListKey(i), Encode(records[i], kRecordLevel));
    return Encode(list, kListLevel);
}

std::vector<PropertyMap> DecodeRecordList(std::wstring_view text) {
    std::vector<PropertyMap> records;
    const PropertyMap list = Decode(text, kListLevel);
    records.reserve(list.Size());
    for (const auto& entry : list.AllEntries()) records.push_back(Decode(entry.second, kRecordLevel));
    return records;
}

std::wstring EncodeTextList(const std::vector<std::wstring>& texts) {
    PropertyMap list;
    for (std::size_t i = 0; i < texts.size(); ++i) list.Set(ListKey(i), texts[i]);
    return Encode(list, kListLevel);
}

std::vector<std::wstring> DecodeTextList(std::wstring_view text) {
    std::vector<std::wstring> texts;
    const PropertyMap list = Decode(text, kListLevel);
    texts.reserve(list.Size());
    for (const auto& entry : list.AllEntries()) texts.push_back(entry.second);
    return texts;
}

namespace {

// Each character Wine's installer acts on, in the order of its mark.
constexpr std::wstring_view kActive = L"[]{}<";
constexpr wchar_t kEscaped = L'\xE000';
constexpr wchar_t kLiteral = L'\xE003';
constexpr std::wstring_view kMarks = L"\xE001\xE002\xE004\xE005\xE006";

}  // namespace

std::wstring EscapeFormatting(std::wstring_view data) {
    if (data.find_first_of(kActive) == std::wstring_view::npos && (data.empty() || data.front() != kEscaped)) {
        return std::wstring(data);
    }
    std::wstring out(1, kEscaped);
    out.reserve(data.size() + 1);
    for (const wchar_t c : data) {
        const std::size_t active = kActive.find(c);
        if (active != std::wstring_view::npos) {
            out += kMarks[active];
        } else {
            if (c >= kEscaped && c <= kMarks.back()) out += kLiteral;
            out += c;
        }
    }
    return out;
}

std::wstring UnescapeFormatting(std::wstring_view data) {
    if (data.empty() || data.front() != kEscaped) return std::wstring(data);
    std::wstring out;
    out.reserve(data.size());
    for (std::size_t i = 1; i < data.size(); ++i) {
        const wchar_t c = data[i];
        const std::size_t mark = kMarks.find(c);
        if (mark != std::wstring_view::npos) out += kActive[mark];
        else if (c == kLiteral && i + 1 < data.size()) out += data[++i];
        else out += c;
    }
    return out;
}

}  // namespace setup
