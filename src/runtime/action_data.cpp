#include "runtime/action_data.h"

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

constexpr wchar_t kEscaped = L'\xE000';
constexpr wchar_t kOpen = L'\xE001';
constexpr wchar_t kClose = L'\xE002';
constexpr wchar_t kLiteral = L'\xE003';

}  // namespace

std::wstring EscapeBrackets(std::wstring_view data) {
    if (data.find_first_of(L"[]") == std::wstring_view::npos && (data.empty() || data.front() != kEscaped)) {
        return std::wstring(data);
    }
    std::wstring out(1, kEscaped);
    out.reserve(data.size() + 1);
    for (const wchar_t c : data) {
        if (c == L'[') {
            out += kOpen;
        } else if (c == L']') {
            out += kClose;
        } else {
            if (c >= kEscaped && c <= kLiteral) out += kLiteral;
            out += c;
        }
    }
    return out;
}

std::wstring UnescapeBrackets(std::wstring_view data) {
    if (data.empty() || data.front() != kEscaped) return std::wstring(data);
    std::wstring out;
    out.reserve(data.size());
    for (std::size_t i = 1; i < data.size(); ++i) {
        const wchar_t c = data[i];
        if (c == kOpen) out += L'[';
        else if (c == kClose) out += L']';
        else if (c == kLiteral && i + 1 < data.size()) out += data[++i];
        else out += c;
    }
    return out;
}

}  // namespace setup
