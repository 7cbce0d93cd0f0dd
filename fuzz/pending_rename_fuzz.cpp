// libFuzzer target for the restart-time rename list parser. Input bytes are
// read as UTF-16 code units. Checked: parsing never crashes, and a value that
// reads as a non-empty list is written back byte for byte (entries of other
// programs must never change).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/pending_rename_list.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::wstring raw(size / 2, L'\0');
    for (std::size_t i = 0; i + 1 < size; i += 2) raw[i / 2] = static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
    const auto list = setup::ParsePendingRenames(raw);
    if (list && !list->empty() && setup::SerializePendingRenames(*list) != raw) std::abort();
    return 0;
}
