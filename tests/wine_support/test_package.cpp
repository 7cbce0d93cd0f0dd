#include "wine_support/test_package.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

#include <wtypes.h>

namespace setup::test {

namespace {

void Check(UINT status, const char* what) {
    if (status != ERROR_SUCCESS) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
}

INT CALLBACK Handler(LPVOID context, UINT type, LPCWSTR text) {
    auto* capture = static_cast<MessageCapture*>(context);
    const std::wstring message = text ? text : L"";
    capture->messages.push_back({type, message});
    return capture->reply ? capture->reply(type, message) : 0;
}

}  // namespace

TempDir::TempDir() {
    static unsigned counter = 0;
    const std::wstring base = std::filesystem::temp_directory_path().wstring() + L"\\utils-test-" +
                              std::to_wstring(::GetCurrentProcessId()) + L"-";
    do path_ = base + std::to_wstring(++counter);
    while (!std::filesystem::create_directory(path_));
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

TestPackage::TestPackage() : path_(dir_.File(L"test.msi")) {
    Check(::MsiOpenDatabaseW(path_.c_str(), MSIDBOPEN_CREATE, database_.Put()), "MsiOpenDatabaseW");
    Sql(L"CREATE TABLE `Property` (`Property` CHAR(72) NOT NULL, `Value` LONGCHAR NOT NULL LOCALIZABLE "
        L"PRIMARY KEY `Property`)");
    Sql(L"CREATE TABLE `Directory` (`Directory` CHAR(72) NOT NULL, `Directory_Parent` CHAR(72), "
        L"`DefaultDir` CHAR(255) NOT NULL LOCALIZABLE PRIMARY KEY `Directory`)");
    Sql(L"INSERT INTO `Directory` (`Directory`, `DefaultDir`) VALUES ('TARGETDIR', 'SourceDir')");
    const std::pair<const wchar_t*, const wchar_t*> properties[] = {
        {L"ProductCode", L"{6A1F0C52-8E4B-4E0B-9C55-3D2A7B9E1F40}"}, {L"ALLUSERS", L"1"},
        {L"ProductName", L"Setup Utils test"}, {L"ProductVersion", L"1.0.0"}, {L"Manufacturer", L"Setup Utils"},
        {L"ProductLanguage", L"1033"}};
    for (const auto& [name, value] : properties) {
        Sql(L"INSERT INTO `Property` (`Property`, `Value`) VALUES ('" + std::wstring(name) + L"', '" + value + L"')");
    }
}

TestPackage::~TestPackage() {
    session_.Reset();
    database_.Reset();
}

void TestPackage::Sql(const std::wstring& query) {
    MsiHandle view;
    Check(::MsiDatabaseOpenViewW(database_.Get(), query.c_str(), view.Put()), "MsiDatabaseOpenViewW");
    Check(::MsiViewExecute(view.Get(), 0), "MsiViewExecute");
}

MSIHANDLE TestPackage::Open() {
    if (database_) {
        // The summary's template (7), revision number (9) and schema (14) make the database a package.
        MsiHandle summary;
        Check(::MsiGetSummaryInformationW(database_.Get(), nullptr, 3, summary.Put()), "MsiGetSummaryInformationW");
        Check(::MsiSummaryInfoSetPropertyW(summary.Get(), 7, VT_LPSTR, 0, nullptr, L"x64;1033"), "template");
        Check(::MsiSummaryInfoSetPropertyW(summary.Get(), 9, VT_LPSTR, 0, nullptr,
                                           L"{0C4C5F7D-91F5-4A0B-8F0B-5E8E2D9A6C21}"), "revision");
        Check(::MsiSummaryInfoSetPropertyW(summary.Get(), 14, VT_I4, 200, nullptr, nullptr), "schema");
        Check(::MsiSummaryInfoPersist(summary.Get()), "MsiSummaryInfoPersist");
        summary.Reset();
        Check(::MsiDatabaseCommit(database_.Get()), "MsiDatabaseCommit");
        database_.Reset();
    }
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

bool MessageCapture::HadError() const {
    for (const Message& m : messages) {
        if ((m.type & 0xFF000000) == INSTALLMESSAGE_ERROR) return true;
    }
    return false;
}

bool MessageCapture::HasInfo(const std::wstring& text) const { return AllInfo().find(text + L'\n') != std::wstring::npos; }

std::wstring MessageCapture::AllInfo() const {
    std::wstring all;
    for (const std::wstring& line : Info()) all.append(line).push_back(L'\n');
    return all;
}

std::wstring ChildProcessCommand(const std::wstring& steps) {
    // Test programs live in tests\ or bench\ of the build tree; the child in tests\.
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const std::filesystem::path tree = std::filesystem::path(self).parent_path().parent_path();
    return L"\"" + (tree / L"tests" / L"child_process.exe").wstring() + L"\" " + steps;
}

}  // namespace setup::test
