#include "services/record_store.h"

#include <algorithm>

#include "runtime/program_log.h"
#include "runtime/round_trips.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/path.h"

namespace setup {

namespace {

constexpr wchar_t kTop[] = L"Software\\Setup Utils";

HKEY Root(bool perUser) { return perUser ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE; }

RegistryKey Open(bool perUser, const std::wstring& key, REGSAM access) {
    RegistryKey handle;
    if (RegistryCall(::RegOpenKeyExW, Root(perUser), key.c_str(), REG_OPTION_OPEN_LINK, access, handle.Put()) != ERROR_SUCCESS) {
        return RegistryKey();
    }
    return handle;
}

// REG_SZ data as text: the bytes as they are, one terminating NUL dropped.
std::optional<std::wstring> TextOf(DWORD type, const std::vector<unsigned char>& data) {
    if (type != REG_SZ) return std::nullopt;
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    if (!text.empty()) std::copy(data.begin(), data.begin() + text.size() * sizeof(wchar_t),
                                 reinterpret_cast<unsigned char*>(text.data()));
    if (!text.empty() && text.back() == L'\0') text.pop_back();
    return text;
}

std::optional<std::wstring> QueryText(HKEY key, const std::wstring& name) {
    std::vector<unsigned char> data(512);
    for (int round = 0; round < 4; ++round) {  // a record may grow between two reads
        DWORD type = 0, size = static_cast<DWORD>(data.size());
        const LONG status = RegistryCall(::RegQueryValueExW, key, name.c_str(), nullptr, &type, data.data(), &size);
        if (status == ERROR_SUCCESS) {
            data.resize(size);
            return TextOf(type, data);
        }
        if (status != ERROR_MORE_DATA) return std::nullopt;
        data.resize(size);
    }
    return std::nullopt;
}

}  // namespace

RecordStore RecordStore::ForProduct(std::wstring_view family, std::wstring_view product, bool perUser) {
    return RecordStore(perUser, std::wstring(kTop) + L"\\" + std::wstring(family) + L"\\" + std::wstring(product));
}

std::optional<std::wstring> RecordStore::Read(std::wstring_view name) const {
    const RegistryKey key = Open(perUser_, key_, KEY_QUERY_VALUE);
    if (!key) return std::nullopt;
    return QueryText(key.Get(), std::wstring(name));
}

std::vector<std::pair<std::wstring, std::wstring>> RecordStore::ReadAll() const {
    std::vector<std::pair<std::wstring, std::wstring>> records;
    const RegistryKey key = Open(perUser_, key_, KEY_QUERY_VALUE);
    if (!key) return records;
    std::vector<wchar_t> name(16384);
    for (DWORD index = 0;; ++index) {
        DWORD length = static_cast<DWORD>(name.size());
        if (RegistryCall(::RegEnumValueW, key.Get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            break;
        }
        const std::wstring valueName(name.data(), length);
        if (std::optional<std::wstring> text = QueryText(key.Get(), valueName)) {
            records.emplace_back(valueName, std::move(*text));
        }
    }
    return records;
}

void RecordStore::Write(std::wstring_view name, std::wstring_view text) const {
    RegistryKey key;
    ThrowIfWin32Error(RegistryCall(::RegCreateKeyExW, Root(perUser_), key_.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                        key.Put(), nullptr),
                      L"Failed to create registry key '" + key_ + L"'.");
    const std::wstring value(name), data(text);
    ThrowIfWin32Error(RegistryCall(::RegSetValueExW, key.Get(), value.c_str(), 0, REG_SZ,
                                       reinterpret_cast<const BYTE*>(data.c_str()),
                                       static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t))),
                      L"Failed to write registry value: Key '" + key_ + L"', Name '" + value + L"'.");
}

void RecordStore::Remove(std::wstring_view name) const {
    if (const RegistryKey key = Open(perUser_, key_, KEY_SET_VALUE)) {
        RegistryCall(::RegDeleteValueW, key.Get(), std::wstring(name).c_str());
    }
    // The keys left empty go, ours only: never "Software" itself.
    for (std::wstring path = key_; path.size() >= std::wstring_view(kTop).size(); path = DirectoryOf(path)) {
        {
            const RegistryKey key = Open(perUser_, path, KEY_QUERY_VALUE);
            if (!key) return;
            DWORD subkeys = 0, values = 0;
            if (RegistryCall(::RegQueryInfoKeyW, key.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                                   nullptr, nullptr, nullptr) != ERROR_SUCCESS ||
                subkeys != 0 || values != 0) {
                return;
            }
        }
        if (RegistryCall(::RegDeleteKeyW, Root(perUser_), path.c_str()) != ERROR_SUCCESS) return;
        LogInfo(L"Removed empty registry key '%s'.", path);
    }
}

std::vector<RecordStore> RecordStore::Siblings() const {
    std::vector<RecordStore> others;
    const std::wstring family = DirectoryOf(key_);
    const RegistryKey key = Open(perUser_, family, KEY_ENUMERATE_SUB_KEYS);
    if (!key) return others;
    const std::wstring mine = PathKey(key_.substr(family.size() + 1));
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {};
        DWORD length = 256;
        if (RegistryCall(::RegEnumKeyExW, key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            break;
        }
        const std::wstring product(name, length);
        if (PathKey(product) != mine) others.emplace_back(perUser_, family + L"\\" + product);
    }
    return others;
}

}  // namespace setup
