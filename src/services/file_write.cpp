#include "services/file_write.h"

#include <vector>

#include "runtime/program_log.h"
#include "runtime/throw.h"
#include "services/file_operations.h"
#include "services/path.h"

namespace setup {

namespace {

constexpr int kStagingNameTries = 5;  // a taken random name is rare; a few more tries, never a loop

// The bytes of `text` as the library's text files hold them.
std::wstring Utf16Content(std::wstring_view text) {
    std::wstring content;
    content.reserve(text.size() + text.size() / 16 + 1);
    content.push_back(L'\xFEFF');
    for (const wchar_t c : text) {
        if (c == L'\r') continue;
        if (c == L'\n') content.push_back(L'\r');
        content.push_back(c);
    }
    return content;
}

bool WriteAll(HANDLE file, const void* data, std::size_t bytes) {
    const auto* p = static_cast<const char*>(data);
    while (bytes > 0) {
        const DWORD chunk = bytes > (1u << 24) ? (1u << 24) : static_cast<DWORD>(bytes);
        DWORD written = 0;
        if (!::WriteFile(file, p, chunk, &written, nullptr) || written == 0) return false;
        p += written;
        bytes -= written;
    }
    return true;
}

// Every byte from the current position of `in` to its end, appended to `out`.
bool CopyContent(HANDLE in, HANDLE out) {
    std::vector<char> buffer(1 << 16);
    for (;;) {
        DWORD read = 0;
        if (!::ReadFile(in, buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr)) return false;
        if (read == 0) return true;
        if (!WriteAll(out, buffer.data(), read)) return false;
    }
}

[[noreturn]] void RefuseLink(const std::wstring& path) {
    Throw(HResultFromWin32(ERROR_CANT_ACCESS_FILE), L"Refused to write '" + path + L"': it is a link (reparse point).");
}

// Refuses the opened `file` when it is a link. Windows answers only on a
// handle opened with FILE_READ_ATTRIBUTES (or to read data); a question it
// does not answer is a failure, never a pass.
void CheckHandleNotLink(HANDLE file, const std::wstring& path, const std::wstring& failure) {
    const DWORD attributes = HandleAttributes(file);
    ThrowLastErrorIf(attributes == INVALID_FILE_ATTRIBUTES, failure);
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) RefuseLink(path);
}

}  // namespace

void CheckWritablePath(std::wstring_view path) {
    const std::wstring problem = PathProblem(path);
    if (!problem.empty()) Throw(kInvalidArgument, L"Refused to write '" + std::wstring(path) + L"': " + problem + L".");
}

void CheckNotLink(std::wstring_view path) {
    const std::wstring name(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) RefuseLink(name);
}

void WriteUtf16File(std::wstring_view path, std::wstring_view text) {
    const std::wstring name(path);
    CheckNotLink(name);
    // Opened without truncation: a link that appeared since the check is
    // opened as itself, seen, and refused before anything is written.
    const std::wstring failure = L"Failed to write file '" + name + L"'.";
    FileHandle file(::CreateFileW(name.c_str(), GENERIC_WRITE | FILE_READ_ATTRIBUTES, FILE_SHARE_READ, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!file, failure);
    CheckHandleNotLink(file.Get(), name, failure);
    const std::wstring content = Utf16Content(text);
    const bool ok = WriteAll(file.Get(), content.data(), content.size() * sizeof(wchar_t)) &&
                    ::SetEndOfFile(file.Get());
    ThrowLastErrorIf(!ok, failure);
}

void AppendUtf16File(std::wstring_view path, std::wstring_view text) {
    const std::wstring name(path);
    CheckWritablePath(name);
    CheckNotLink(name);
    const std::wstring failure = L"Failed to write file '" + name + L"'.";
    FileHandle file(::CreateFileW(name.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, FILE_SHARE_READ, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!file, failure);
    CheckHandleNotLink(file.Get(), name, failure);
    LARGE_INTEGER size{};
    ThrowLastErrorIf(!::GetFileSizeEx(file.Get(), &size), failure);
    std::wstring content = Utf16Content(text);
    if (size.QuadPart != 0) content.erase(0, 1);  // the byte-order mark belongs at the start only
    ThrowLastErrorIf(!WriteAll(file.Get(), content.data(), content.size() * sizeof(wchar_t)), failure);
}

NewFile CreateStagingFile(std::wstring_view directory, std::wstring_view prefix) {
    const std::wstring failure = L"Failed to get temp file '" + std::wstring(directory) + L"\\" + std::wstring(prefix) + L"'.";
    DWORD error = ERROR_FILE_EXISTS;
    for (int attempt = 0; attempt < kStagingNameTries; ++attempt) {
        NewFile staged;
        staged.path = JoinPath(directory, std::wstring(prefix) + CreateRandomHex() + L".tmp");
        staged.handle.Reset(::CreateFileW(staged.path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
        if (staged.handle) return staged;
        error = ::GetLastError();
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) break;
        LogInfo(L"The name '%s' is taken; trying another.", staged.path);
    }
    Throw(FailureFromWin32(error), failure);
}

void WriteUtf16(const NewFile& file, std::wstring_view text) {
    const std::wstring content = Utf16Content(text);
    ThrowLastErrorIf(!WriteAll(file.handle.Get(), content.data(), content.size() * sizeof(wchar_t)),
                     L"Failed to write file '" + file.path + L"'.");
}

void CopyToNewFile(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    const std::wstring failure = L"Failed to copy file '" + from + L"' -> '" + to + L"'.";
    LogInfo(L"Copy file '%s' -> '%s'.", from, to);
    CheckNotLink(from);
    // Full sharing: a file that another program holds open (LOCKFILESONUPDATE
    // is for exactly those) can still be read for its backup.
    FileHandle in(::CreateFileW(from.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN,
                                nullptr));
    ThrowLastErrorIf(!in, failure);
    FileStamp info;
    ThrowLastErrorIf(!ReadFileStamp(in.Get(), info), failure);
    if (info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) RefuseLink(from);
    // Read-only and the like are put on once the copy is complete.
    FileHandle out(::CreateFileW(to.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                 FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!out, failure);
    bool ok = CopyContent(in.Get(), out.Get());
    ok = ok && ::SetFileTime(out.Get(), &info.created, &info.accessed, &info.written);
    if (!ok) {
        const DWORD error = ::GetLastError();
        out.Reset();
        ::DeleteFileW(to.c_str());
        Throw(FailureFromWin32(error), failure);
    }
    out.Reset();
    const DWORD kept = info.attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                                FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE);
    if (kept != 0) ::SetFileAttributesW(to.c_str(), kept);
}

namespace {

// `path` opened for writing, never through a link: checked by name first and
// again on the handle, which is opened as the link itself if one appeared.
FileHandle OpenForWriting(const std::wstring& path, DWORD access, DWORD disposition, const std::wstring& failure) {
    CheckNotLink(path);
    FileHandle file(::CreateFileW(path.c_str(), access | FILE_READ_ATTRIBUTES, FILE_SHARE_READ, nullptr, disposition,
                                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    ThrowLastErrorIf(!file, failure);
    CheckHandleNotLink(file.Get(), path, failure);
    return file;
}

}  // namespace

void CopyIntoExistingFile(std::wstring_view source, std::wstring_view destination) {
    const std::wstring from(source);
    const std::wstring to(destination);
    const std::wstring failure = L"Failed to copy file '" + from + L"' -> '" + to + L"'.";
    LogInfo(L"Copy file '%s' -> '%s'.", from, to);
    CheckNotLink(from);
    FileHandle in(::CreateFileW(from.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN,
                                nullptr));
    ThrowLastErrorIf(!in, failure);
    FileStamp info;
    ThrowLastErrorIf(!ReadFileStamp(in.Get(), info), failure);
    if (info.attributes & FILE_ATTRIBUTE_REPARSE_POINT) RefuseLink(from);
    // A read-only destination takes the bytes once the bit is off; the
    // source's attributes (the original's) go back on at the end.
    const DWORD now = ::GetFileAttributesW(to.c_str());
    if (now != INVALID_FILE_ATTRIBUTES && (now & FILE_ATTRIBUTE_READONLY)) {
        ::SetFileAttributesW(to.c_str(), now & ~DWORD{FILE_ATTRIBUTE_READONLY});
    }
    FileHandle out = OpenForWriting(to, GENERIC_WRITE | FILE_WRITE_ATTRIBUTES, OPEN_EXISTING, failure);
    bool ok = CopyContent(in.Get(), out.Get());
    ok = ok && ::SetEndOfFile(out.Get()) &&
         ::SetFileTime(out.Get(), &info.created, &info.accessed, &info.written);
    ThrowLastErrorIf(!ok, failure);
    out.Reset();
    const DWORD kept = info.attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                                FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE);
    ::SetFileAttributesW(to.c_str(), kept != 0 ? kept : FILE_ATTRIBUTE_NORMAL);
}

void WriteFileBytes(std::wstring_view path, const std::vector<unsigned char>& bytes) {
    const std::wstring name(path);
    const std::wstring failure = L"Failed to write file '" + name + L"'.";
    CheckWritablePath(name);
    // Opened without truncation: nothing is cut before the handle is checked.
    FileHandle file = OpenForWriting(name, GENERIC_WRITE, OPEN_ALWAYS, failure);
    const bool ok = WriteAll(file.Get(), bytes.data(), bytes.size()) && ::SetEndOfFile(file.Get());
    ThrowLastErrorIf(!ok, failure);
}

void WriteWarnings(const std::wstring& file, const std::vector<std::wstring>& warnings) {
    if (warnings.empty()) return;
    if (file.empty()) {
        LogInfo(L"InstallationWarningsFilePath is not set: the warnings above are in this log only.");
        return;
    }
    LogInfo(L"Write exceptions that wasn't raised due to the ContinueOnError row attribute to '%s'.", file);
    std::wstring text;
    for (const std::wstring& warning : warnings) text += warning + L"\n";
    try {
        AppendUtf16File(file, text);
    } catch (const Exception& e) {
        LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
        LogInfo(L"Failed to write '%s'. Unknown exception.", file);
    }
}

}  // namespace setup
