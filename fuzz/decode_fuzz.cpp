// libFuzzer target for the custom action data decoder.
// Input bytes are read as UTF-16 code units. Checked: decoding never crashes
// at any nesting level, and a decoded map whose keys hold no separator (the
// codec's round-trip domain: keys are written unescaped) survives
// encode-then-decode unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/action_data.h"

namespace {

bool KeysAvoid(const setup::PropertyMap& map, wchar_t separator) {
    for (const auto& entry : map.AllEntries()) {
        if (entry.first.find(separator) != std::wstring::npos) return false;
    }
    return true;
}

void CheckLevel(std::wstring_view text, setup::Separators level) {
    const setup::PropertyMap map = setup::Decode(text, level);
    if (KeysAvoid(map, level.pair)) {
        const setup::PropertyMap again = setup::Decode(setup::Encode(map, level), level);
        if (!(again == map)) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::wstring text(size / 2, L'\0');
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        text[i / 2] = static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
    }
    CheckLevel(text, setup::kActionDataLevel);
    CheckLevel(text, setup::kListLevel);
    CheckLevel(text, setup::kRecordLevel);
    // The nesting the features use: every value may hold a list of records.
    const setup::PropertyMap top = setup::DecodeActionData(text);
    for (const auto& entry : top.AllEntries()) {
        for (const auto& record : setup::DecodeRecordList(entry.second)) (void)record.Size();
    }
    return 0;
}
