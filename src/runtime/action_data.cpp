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

}  // namespace setup
