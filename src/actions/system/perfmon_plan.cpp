#include "actions/system/perfmon_plan.h"

#include <cwctype>

#include "runtime/action_data.h"
#include "runtime/format.h"

namespace setup {

using namespace perfmon;

namespace {

std::wstring Lower(std::wstring_view text) {
    std::wstring out(text);
    for (wchar_t& c : out) c = static_cast<wchar_t>(std::towlower(c));
    return out;
}

std::wstring_view Trim(std::wstring_view text) {
    while (!text.empty() && std::iswspace(text.front())) text.remove_prefix(1);
    while (!text.empty() && std::iswspace(text.back())) text.remove_suffix(1);
    return text;
}

// The key=value lines of one [section] of an .ini text (section name case-blind).
std::vector<std::pair<std::wstring, std::wstring>> Section(std::wstring_view ini, std::wstring_view wanted) {
    std::vector<std::pair<std::wstring, std::wstring>> entries;
    bool inside = false;
    std::size_t start = 0;
    while (start < ini.size()) {
        std::size_t end = ini.find(L'\n', start);
        if (end == std::wstring_view::npos) end = ini.size();
        const std::wstring_view line = Trim(ini.substr(start, end - start));
        start = end + 1;
        if (line.empty() || line.front() == L';') continue;
        if (line.front() == L'[' && line.back() == L']') {
            inside = Lower(Trim(line.substr(1, line.size() - 2))) == Lower(wanted);
            continue;
        }
        if (!inside) continue;
        const std::size_t equals = line.find(L'=');
        entries.emplace_back(Lower(Trim(line.substr(0, equals))),
                             equals == std::wstring_view::npos ? L"" : std::wstring(Trim(line.substr(equals + 1))));
    }
    return entries;
}

std::wstring Value(const std::vector<std::pair<std::wstring, std::wstring>>& section, std::wstring_view key) {
    for (const auto& [k, v] : section) {
        if (k == key) return v;
    }
    return {};
}

}  // namespace

std::wstring PerfmonRowProblem(const PerfmonRow& row) {
    if (row.attributes & ~kKnownBits) {
        return Format(L"the attributes %d hold bits the library does not know", row.attributes);
    }
    if (row.name.empty()) return L"the name is empty";
    if (row.file.empty()) return L"the file is empty";
    if ((row.attributes & Manifest) && !row.library.empty()) return L"a manifest (0x1) takes no Library";
    if (!(row.attributes & Manifest) && !row.resourceDir.empty()) return L"only a manifest (0x1) takes a ResourceDir";
    if (row.name.find_first_of(L"\\/\"") != std::wstring::npos) return L"the name holds '\\', '/' or '\"'";
    return {};
}

Decision DecidePerfmon(ComponentStates& states, const PerfmonRow& row, bool unregister, LogSink& log) {
    const DecisionRule rule{.acceptInstall = !unregister, .acceptUninstall = unregister, .acceptReinstall = true,
                            .evaluateCondition = true, .skipFileAbsent = unregister};
    const wchar_t* verb = unregister ? L"unregister" : L"register";
    return DecideRow(states, rule, row.component, row.condition, [&](const Decision& d) -> std::wstring {
        switch (d.verdict) {
        case Verdict::NullAction: return Format(L"Skip %s performance counters '%s' for null-action component.", verb, row.id);
        case Verdict::NotMarked:
            return Format(L"Skip %s performance counters '%s'. Component is not marked to %s.", verb, row.id, verb);
        case Verdict::FileAbsent:
            return Format(L"Skip %s performance counters '%s'. Component action is FileAbsent.", verb, row.id);
        case Verdict::ConditionFailed:
            return Format(L"Skip %s performance counters '%s'. Condition is '%d'.", verb, row.id, d.condition);
        case Verdict::Chosen:
            return Format(L"Need to %s performance counters '%s' (%s). Component to do %d.", verb, row.id, row.name,
                          static_cast<int>(d.task));
        }
        return {};
    }, log);
}

std::wstring PerfIniSymbolFile(std::wstring_view ini) { return Value(Section(ini, L"info"), L"symbolfile"); }

std::wstring PerfIniProblem(std::wstring_view ini, std::wstring_view name, std::wstring_view symbols) {
    const std::wstring driver = Value(Section(ini, L"info"), L"drivername");
    if (driver.empty()) return L"its [info] section names no drivername";
    if (Lower(driver) != Lower(name)) return L"its drivername '" + driver + L"' is not the row's name '" + std::wstring(name) + L"'";
    if (Section(ini, L"languages").empty()) return L"its [languages] section names no language";
    // The symbol file: "#define NAME <offset>", every offset even.
    std::size_t start = 0;
    while (start < symbols.size()) {
        std::size_t end = symbols.find(L'\n', start);
        if (end == std::wstring_view::npos) end = symbols.size();
        std::wstring_view line = Trim(symbols.substr(start, end - start));
        start = end + 1;
        if (line.substr(0, 7) != L"#define") continue;
        line = Trim(line.substr(7));
        const std::size_t space = line.find_first_of(L" \t");
        if (space == std::wstring_view::npos) continue;
        const std::wstring_view symbol = line.substr(0, space);
        const std::wstring_view number = Trim(line.substr(space));
        if (number.empty() || !std::iswdigit(number.front())) continue;
        if (std::stol(std::wstring(number)) % 2 != 0) {
            return L"the offset of " + std::wstring(symbol) + L" is " + std::wstring(number) + L", not even";
        }
    }
    return {};
}

std::wstring LoadCommand(std::wstring_view ini) { return L"lodctr \"" + std::wstring(ini) + L"\""; }
std::wstring UnloadCommand(std::wstring_view name) { return L"unlodctr " + std::wstring(name); }

std::wstring ManifestLoadCommand(std::wstring_view tool, std::wstring_view manifest, std::wstring_view resourceDir) {
    std::wstring command = L"\"" + std::wstring(tool) + L"\" /m:\"" + std::wstring(manifest) + L"\"";
    // A folder's closing backslash would escape the closing quote: it goes.
    while (resourceDir.size() > 3 && (resourceDir.back() == L'\\' || resourceDir.back() == L'/')) {
        resourceDir.remove_suffix(1);
    }
    if (!resourceDir.empty()) command += L" \"" + std::wstring(resourceDir) + L"\"";
    return command;
}

std::wstring ManifestUnloadCommand(std::wstring_view tool, std::wstring_view manifest) {
    return L"\"" + std::wstring(tool) + L"\" /m:\"" + std::wstring(manifest) + L"\"";
}

std::vector<RegistryValue> LibraryValues(std::wstring_view library) {
    std::vector<std::wstring> parts;
    for (std::size_t start = 0;;) {
        const std::size_t semicolon = library.find(L';', start);
        parts.emplace_back(Trim(library.substr(start, semicolon == std::wstring_view::npos ? std::wstring_view::npos
                                                                                              : semicolon - start)));
        if (semicolon == std::wstring_view::npos) break;
        start = semicolon + 1;
    }
    parts.resize(4);
    const wchar_t* defaults[] = {L"", L"OpenPerformanceData", L"CollectPerformanceData", L"ClosePerformanceData"};
    const wchar_t* names[] = {L"Library", L"Open", L"Collect", L"Close"};
    std::vector<RegistryValue> values;
    for (int i = 0; i < 4; ++i) {
        const std::wstring& text = parts[i].empty() ? std::wstring(defaults[i]) : parts[i];
        RegistryValue value{names[i], kRegSz, {}};
        AppendUtf16(value.data, text);
        values.push_back(std::move(value));
    }
    return values;
}

std::wstring EncodeKeyCapture(const KeyCapture& capture) {
    std::vector<PropertyMap> keys;
    for (const auto& [path, values] : capture.keys) {
        PropertyMap key;
        key.Set(L"path", path);
        std::vector<std::wstring> texts;
        for (const RegistryValue& v : values) {
            std::wstring hex;
            for (unsigned char b : v.data) hex += Format(L"%02x", static_cast<unsigned>(b));
            texts.push_back(Format(L"%u:", static_cast<unsigned>(v.type)) + hex + L":" + v.name);
        }
        key.Set(L"values", EncodeTextList(texts));
        keys.push_back(std::move(key));
    }
    PropertyMap top;
    if (capture.existed) top.Set(L"existed", 1);
    top.Set(L"keys", EncodeRecordList(keys));
    return EncodeActionData(top);
}

KeyCapture DecodeKeyCapture(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    KeyCapture capture{top.GetInteger(L"existed") != 0, {}};
    for (const PropertyMap& key : DecodeRecordList(top.View(L"keys"))) {
        std::vector<RegistryValue> values;
        for (const std::wstring& entry : DecodeTextList(key.View(L"values"))) {
            const std::size_t colon = entry.find(L':');
            const std::size_t second = entry.find(L':', colon + 1);
            if (colon == std::wstring::npos || second == std::wstring::npos) continue;
            RegistryValue value{entry.substr(second + 1), static_cast<std::uint32_t>(std::stoul(entry.substr(0, colon))), {}};
            for (std::size_t i = colon + 1; i + 1 < second; i += 2) {
                value.data.push_back(static_cast<unsigned char>(std::stoul(entry.substr(i, 2), nullptr, 16)));
            }
            values.push_back(std::move(value));
        }
        capture.keys.emplace_back(key.Get(L"path"), std::move(values));
    }
    return capture;
}

std::wstring ManifestProviderGuid(std::wstring_view manifest) {
    const std::size_t at = manifest.find(L"providerGuid=");
    if (at == std::wstring_view::npos) return {};
    const std::size_t open = manifest.find_first_of(L"\"'", at);
    if (open == std::wstring_view::npos) return {};
    const std::size_t close = manifest.find(manifest[open], open + 1);
    if (close == std::wstring_view::npos) return {};
    return std::wstring(manifest.substr(open + 1, close - open - 1));
}

std::wstring EncodePerfmonActionData(const PerfmonActionData& data) {
    std::vector<PropertyMap> items;
    for (const PerfmonItem& item : data.items) {
        PropertyMap r;
        r.Set(L"id", item.id);
        r.Set(L"name", item.name);
        r.Set(L"file", item.file);
        r.Set(L"lib", item.library);
        r.Set(L"res", item.resourceDir);
        r.Set(L"atr", item.attributes);
        r.Set(L"key", item.key);
        r.Set(L"capture", EncodeKeyCapture(item.capture));
        items.push_back(std::move(r));
    }
    PropertyMap top;
    if (data.rollback) top.Set(L"rollback", 1);
    top.Set(L"items", EncodeRecordList(items));
    return EncodeActionData(top);
}

PerfmonActionData DecodePerfmonActionData(std::wstring_view text) {
    const PropertyMap top = DecodeActionData(text);
    PerfmonActionData data{top.GetInteger(L"rollback") != 0, {}};
    for (const PropertyMap& r : DecodeRecordList(top.View(L"items"))) {
        data.items.push_back({r.Get(L"id"), r.Get(L"name"), r.Get(L"file"), r.Get(L"lib"), r.Get(L"res"),
                              r.GetInteger(L"atr"), r.Get(L"key"), DecodeKeyCapture(r.View(L"capture"))});
    }
    return data;
}

}  // namespace setup
