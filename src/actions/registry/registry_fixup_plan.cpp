#include "actions/registry/registry_fixup_plan.h"

#include "runtime/action_data.h"
#include "runtime/exception.h"

namespace setup {

std::vector<QwordItem> PlanQwords(const std::vector<QwordRow>& rows, ComponentStates& states, LogSink& log) {
    std::vector<QwordItem> items;
    for (const QwordRow& row : rows) {
        const Decision d = DecideRow(states, kStandardInstall, row.component, row.condition, [&](const Decision& x) {
            switch (x.verdict) {
            case Verdict::NullAction:
                return Format(L"Skip qword registry row '%s' for null-action component '%s'.", row.id, row.component);
            case Verdict::ConditionFailed:
                return Format(L"Skip qword registry row '%s', '%s'. Condition is '%d'.", row.id, row.condition,
                              x.condition);
            case Verdict::Chosen:
                return Format(L"Need to write qword registry row '%s'. Component '%s' to do %d.", row.id,
                              row.component, static_cast<int>(x.task));
            default:
                return Format(L"Skip qword registry row '%s'. Component '%s' is not marked to install.", row.id,
                              row.component);
            }
        }, log);
        if (!d.Chosen()) continue;
        std::wstring why;
        const auto number = ParseAuthorInteger(row.value, INT64_MIN, UINT64_MAX, why);
        if (!number) {
            throw Exception(kInvalidArgument, L"The value '" + row.value + L"' of RegistryQword row '" + row.id +
                                                  L"' is not a qword: " + why + L".");
        }
        items.push_back({row.root, row.key, row.name, row.win64 ? kView64 : kView32,
                         static_cast<std::uint64_t>(*number), std::nullopt});
    }
    return items;
}

std::wstring EncodeQwordItems(const std::vector<QwordItem>& items) {
    std::vector<PropertyMap> records;
    for (const QwordItem& item : items) {
        PropertyMap r;
        r.Set(L"root", item.root);
        r.Set(L"key", item.key);
        r.Set(L"name", item.name);
        r.Set(L"view", static_cast<int>(item.view));
        r.Set(L"qword", std::to_wstring(item.qword));
        if (item.previous) {
            r.Set(L"type", static_cast<int>(item.previous->type));
            std::wstring hex;
            for (const unsigned char b : item.previous->data) hex += Format(L"%02x", static_cast<unsigned>(b));
            r.Set(L"data", hex);
        }
        records.push_back(std::move(r));
    }
    PropertyMap top;
    top.Set(L"values", EncodeRecordList(records));
    return EncodeActionData(top);
}

std::vector<QwordItem> DecodeQwordItems(std::wstring_view text) {
    std::vector<QwordItem> items;
    for (const PropertyMap& r : DecodeRecordList(DecodeActionData(text).View(L"values"))) {
        QwordItem item{r.GetInteger(L"root"), r.Get(L"key"), r.Get(L"name"),
                       static_cast<std::uint32_t>(r.GetInteger(L"view")), 0, {}};
        for (const wchar_t c : r.Get(L"qword")) item.qword = item.qword * 10 + static_cast<unsigned>(c - L'0');
        if (!r.Get(L"type").empty()) {
            RegistryValue previous{item.name, static_cast<std::uint32_t>(r.GetInteger(L"type")), {}};
            const std::wstring hex = r.Get(L"data");
            for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
                auto nibble = [](wchar_t c) { return c <= L'9' ? c - L'0' : 10 + (c - L'a'); };
                previous.data.push_back(static_cast<unsigned char>(nibble(hex[i]) * 16 + nibble(hex[i + 1])));
            }
            item.previous = std::move(previous);
        }
        items.push_back(std::move(item));
    }
    return items;
}

std::optional<std::wstring> IntegerPropertyOf(std::wstring_view registryValue) {
    if (registryValue.size() < 4 || registryValue.substr(0, 2) != L"#[" || registryValue.back() != L']') {
        return std::nullopt;
    }
    const std::wstring_view name = registryValue.substr(2, registryValue.size() - 3);
    for (const wchar_t c : name) {
        const bool ok = (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') ||
                        c == L'_' || c == L'.';
        if (!ok) return std::nullopt;
    }
    return std::wstring(name);
}

std::wstring NormalizeDwordProperty(std::wstring_view text, std::wstring_view property, std::wstring_view row) {
    std::wstring why;
    const auto number = ParseAuthorInteger(text, INT32_MIN, UINT32_MAX, why);
    if (!number) {
        throw Exception(kInvalidArgument, L"The value '" + std::wstring(text) + L"' of property " +
                                              std::wstring(property) + L" for Registry row '" + std::wstring(row) +
                                              L"' is not a DWORD: " + why + L".");
    }
    // The installer reads "#" numbers as signed 32-bit: give it the same bits.
    return std::to_wstring(static_cast<std::int32_t>(static_cast<std::uint32_t>(*number)));
}

}  // namespace setup
