#pragma once
// The registry fix-ups as plain decisions (portable): which RegistryQword rows
// turn a Registry row's placeholder into a REG_QWORD, and how a property fed
// to a DWORD ("#[PROPERTY]") is normalised so the installer writes the number
// the author meant.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "actions/registry/registry_value.h"
#include "runtime/component_decision.h"
#include "runtime/log_sink.h"

namespace setup {

// A RegistryQword row joined with the Registry row it names; key, name and
// value already formatted, root already resolved (-1 by ALLUSERS).
struct QwordRow {
    std::wstring id;  // Registry_
    int root = 2;
    std::wstring key, name, value, component, condition;
    bool win64 = false;  // the component's 64-bit attribute: the view
};

// One value to rewrite, and what was there when the install began (put back
// by the rollback; nothing: the value did not exist).
struct QwordItem {
    int root = 2;
    std::wstring key, name;
    std::uint32_t view = kView32;
    std::uint64_t qword = 0;
    std::optional<RegistryValue> previous;
    bool operator==(const QwordItem&) const = default;
};

// The rows whose component is installed or reinstalled and whose condition
// holds, each logged; a chosen row whose value is not a number throws
// E_INVALIDARG naming the row.
std::vector<QwordItem> PlanQwords(const std::vector<QwordRow>& rows, ComponentStates& states, LogSink& log);

std::wstring EncodeQwordItems(const std::vector<QwordItem>& items);
std::vector<QwordItem> DecodeQwordItems(std::wstring_view text);

// PROPERTY when `registryValue` is exactly "#[PROPERTY]", else nothing.
std::optional<std::wstring> IntegerPropertyOf(std::wstring_view registryValue);

// The property's text as the installer's "#" notation takes a DWORD: plain
// signed decimal (blanks trimmed, "+" dropped, 0x hex converted, values above
// 2147483647 as their 32-bit two's complement). Throws E_INVALIDARG "The value
// '<text>' of property <p> for Registry row '<row>' is not a DWORD: <why>.".
std::wstring NormalizeDwordProperty(std::wstring_view text, std::wstring_view property, std::wstring_view row);

}  // namespace setup
