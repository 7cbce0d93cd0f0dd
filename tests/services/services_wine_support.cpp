#include "services/services_wine_support.h"

#include "services/pending_rename_store.h"

namespace setup::test {

namespace {

RegistryKey OpenSessionManager(REGSAM access) {
    RegistryKey key;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, access, key.Put());
    return key;
}

}  // namespace

SavedPendingRenames::SavedPendingRenames() { existed_ = ReadRaw(raw_, type_); }

SavedPendingRenames::~SavedPendingRenames() {
    if (existed_) SetRaw(type_, raw_);
    else Remove();
}

void SavedPendingRenames::SetRaw(DWORD type, const std::wstring& raw) {
    RegistryKey key = OpenSessionManager(KEY_SET_VALUE);
    ::RegSetValueExW(key.Get(), kPendingRenamesValue, 0, type, reinterpret_cast<const BYTE*>(raw.data()),
                     static_cast<DWORD>(raw.size() * sizeof(wchar_t)));
}

void SavedPendingRenames::Remove() {
    RegistryKey key = OpenSessionManager(KEY_SET_VALUE);
    ::RegDeleteValueW(key.Get(), kPendingRenamesValue);
}

bool SavedPendingRenames::ReadRaw(std::wstring& raw, DWORD& type) {
    RegistryKey key = OpenSessionManager(KEY_QUERY_VALUE);
    DWORD bytes = 0;
    if (::RegQueryValueExW(key.Get(), kPendingRenamesValue, nullptr, &type, nullptr, &bytes) != ERROR_SUCCESS) {
        return false;
    }
    raw.assign(bytes / sizeof(wchar_t), L'\0');
    ::RegQueryValueExW(key.Get(), kPendingRenamesValue, nullptr, &type, reinterpret_cast<BYTE*>(raw.data()), &bytes);
    return true;
}

PendingRenameList QueuedRenames() {
    PendingRenameList list = ParsePendingRenames(ReadPendingRenameValue().data).value_or(PendingRenameList{});
    for (PendingRename& entry : list) {
        entry.source = RemoveNtPrefix(entry.source);
        entry.target = RemoveNtPrefix(entry.target);
    }
    return list;
}

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    FileHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    ::WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

std::string ReadBytes(const std::wstring& path) {
    FileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return "<missing>";
    std::string bytes;
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file.Get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) bytes.append(buffer, read);
    return bytes;
}

}  // namespace setup::test
