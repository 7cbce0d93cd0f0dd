#include "services/services_wine_support.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "services/pending_rename_store.h"

namespace setup::test {

namespace {

RegistryKey OpenSessionManager(REGSAM access) {
    RegistryKey key;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSessionManagerKey, 0, access, key.Put());
    return key;
}

}  // namespace

SavedPendingRenames::SavedPendingRenames() : saved_(ReadPendingRenameValue()) {}

SavedPendingRenames::~SavedPendingRenames() {
    if (saved_.exists) SetRaw(saved_.type, saved_.data);
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

PendingRenameList QueuedRenames() {
    PendingRenameList list = ParsePendingRenames(ReadPendingRenameValue().data).value_or(PendingRenameList{});
    for (PendingRename& entry : list) {
        entry.source = RemoveNtPrefix(entry.source);
        entry.target = RemoveNtPrefix(entry.target);
    }
    return list;
}

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

std::string ReadBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "<missing>";
}

}  // namespace setup::test
