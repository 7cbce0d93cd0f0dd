#include "wine_support/test_package.h"

#include <stdexcept>

#include <wtypes.h>

namespace setup::test {

namespace {

// MinGW's headers lack the PID_* summary constants.
constexpr UINT kPidTemplate = 7;
constexpr UINT kPidRevision = 9;
constexpr UINT kPidPageCount = 14;
constexpr UINT kPidWordCount = 15;

void Check(UINT status, const char* what) {
    if (status != ERROR_SUCCESS) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
}

void RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW entry;
    FindHandle find(::FindFirstFileW((path + L"\\*").c_str(), &entry));
    if (find) {
        do {
            const std::wstring name = entry.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring child = path + L"\\" + name;
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(child);
            } else {
                ::SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
                ::DeleteFileW(child.c_str());
            }
        } while (::FindNextFileW(find.Get(), &entry));
    }
    ::RemoveDirectoryW(path.c_str());
}

INT CALLBACK Handler(LPVOID context, UINT type, LPCWSTR text) {
    auto* capture = static_cast<MessageCapture*>(context);
    const std::wstring message = text ? text : L"";
    capture->messages.push_back({type, message});
    return capture->reply ? capture->reply(type, message) : 0;
}

}  // namespace

TempDir::TempDir() {
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    static unsigned counter = 0;
    for (;;) {
        path_ = std::wstring(temp) + L"utils-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                std::to_wstring(++counter);
        if (::CreateDirectoryW(path_.c_str(), nullptr)) break;
        if (::GetLastError() != ERROR_ALREADY_EXISTS) throw std::runtime_error("cannot create a temp directory");
    }
}

TempDir::~TempDir() { RemoveTree(path_); }

TestPackage::TestPackage() : path_(dir_.File(L"test.msi")) {
    Check(::MsiOpenDatabaseW(path_.c_str(), MSIDBOPEN_CREATE, database_.Put()), "MsiOpenDatabaseW");
    Sql(L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL LOCALIZABLE "
        L"PRIMARY KEY `Property`)");
    Sql(L"CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), "
        L"`DefaultDir` CHAR(255) NOT NULL LOCALIZABLE PRIMARY KEY `Directory`)");
    Sql(L"INSERT INTO `Directory` (`Directory`, `DefaultDir`) VALUES ('TARGETDIR', 'SourceDir')");
    AddProperty(L"ProductCode", L"{6A1F0C52-8E4B-4E0B-9C55-3D2A7B9E1F40}");
    AddProperty(L"ALLUSERS", L"1");
    AddProperty(L"ProductName", L"Setup Utils test");
    AddProperty(L"ProductVersion", L"1.0.0");
    AddProperty(L"Manufacturer", L"Setup Utils");
    AddProperty(L"ProductLanguage", L"1033");
}

TestPackage::~TestPackage() {
    session_.Reset();
    database_.Reset();
}

void TestPackage::Commit() {
    if (committed_) return;
    MsiHandle summary;
    Check(::MsiGetSummaryInformationW(database_.Get(), nullptr, 8, summary.Put()), "MsiGetSummaryInformationW");
    Check(::MsiSummaryInfoSetPropertyW(summary.Get(), kPidTemplate, VT_LPSTR, 0, nullptr, L"x64;1033"), "template");
    Check(::MsiSummaryInfoSetPropertyW(summary.Get(), kPidRevision, VT_LPSTR, 0, nullptr,
                                       L"{0C4C5F7D-91F5-4A0B-8F0B-5E8E2D9A6C21}"), "revision");
    Check(::MsiSummaryInfoSetPropertyW(summary.Get(), kPidPageCount, VT_I4, 200, nullptr, nullptr), "page count");
    Check(::MsiSummaryInfoSetPropertyW(summary.Get(), kPidWordCount, VT_I4, 0, nullptr, nullptr), "word count");
    Check(::MsiSummaryInfoPersist(summary.Get()), "MsiSummaryInfoPersist");
    summary.Reset();
    Check(::MsiDatabaseCommit(database_.Get()), "MsiDatabaseCommit");
    database_.Reset();
    committed_ = true;
}

void TestPackage::Sql(const std::wstring& query) {
    MsiHandle view;
    Check(::MsiDatabaseOpenViewW(database_.Get(), query.c_str(), view.Put()), "MsiDatabaseOpenViewW");
    Check(::MsiViewExecute(view.Get(), 0), "MsiViewExecute");
}

void TestPackage::AddProperty(const std::wstring& name, const std::wstring& value) {
    Sql(L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('" + name + L"', '" + value + L"')");
}

MSIHANDLE TestPackage::Open() {
    Commit();
    session_.Reset();
    ::MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    Check(::MsiOpenPackageW(path_.c_str(), session_.Put()), "MsiOpenPackageW");
    return session_.Get();
}

MessageCapture::MessageCapture(std::function<int(UINT, const std::wstring&)> replyFn) : reply(std::move(replyFn)) {
    const DWORD filter = INSTALLLOGMODE_INFO | INSTALLLOGMODE_ERROR | INSTALLLOGMODE_WARNING |
                         INSTALLLOGMODE_USER | INSTALLLOGMODE_PROGRESS | INSTALLLOGMODE_ACTIONSTART;
    previous_ = ::MsiSetExternalUIW(&Handler, filter, this);
}

MessageCapture::~MessageCapture() { ::MsiSetExternalUIW(previous_, 0, nullptr); }

std::vector<std::wstring> MessageCapture::Info() const {
    // One message may carry a batch of lines.
    std::vector<std::wstring> lines;
    for (const Message& m : messages) {
        if ((m.type & 0xFF000000) != INSTALLMESSAGE_INFO) continue;
        for (std::size_t start = 0;;) {
            const std::size_t end = m.text.find(L'\n', start);
            lines.push_back(m.text.substr(start, end - start));
            if (end == std::wstring::npos) break;
            start = end + 1;
        }
    }
    return lines;
}

std::vector<std::wstring> MessageCapture::Errors() const {
    std::vector<std::wstring> lines;
    for (const Message& m : messages) {
        if ((m.type & 0xFF000000) == INSTALLMESSAGE_ERROR) lines.push_back(m.text);
    }
    return lines;
}

bool MessageCapture::HasInfo(const std::wstring& text) const {
    for (const std::wstring& line : Info()) {
        if (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0) {
            return true;
        }
    }
    return false;
}

std::wstring MessageCapture::AllInfo() const {
    std::wstring all;
    for (const std::wstring& line : Info()) all.append(line).push_back(L'\n');
    return all;
}

namespace {

// The build tree of this program: ...\windows-x64 (programs live in tests\ or bench\).
std::wstring BuildTree() {
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path = self;
    path = path.substr(0, path.find_last_of(L'\\'));
    return path.substr(0, path.find_last_of(L'\\'));
}

}  // namespace

std::wstring ChildProcessCommand(const std::wstring& steps) {
    return L"\"" + BuildTree() + L"\\tests\\child_process.exe\" " + steps;
}

}  // namespace setup::test
