#include "actions/files/cabinet_extract.h"

#include <fcntl.h>
#include <map>
#include <set>

#include "actions/files/cabinet_plan.h"
#include "runtime/throw.h"
#include "runtime/unique_handle.h"
#include "services/file_operations.h"
#include "services/path.h"

#include <fdi.h>

namespace setup {

namespace {

// One extraction. FDI hands its open callback only a name, so the extraction
// under way is found through this thread's pointer to it.
struct Extraction {
    std::wstring cabinetFolder;
    std::wstring cabinet;
    std::wstring folder;
    std::vector<std::wstring> names;
    std::set<std::wstring> seen;  // lower case
    std::wstring refusal;         // why a name was refused: the extraction stopped there
    DWORD writeError = 0;         // why a file could not be written
    std::map<HANDLE, std::wstring> open;  // output files not yet closed, with their paths
};

thread_local Extraction* current = nullptr;

std::wstring Widen(const char* text, UINT codePage) {
    const int n = ::MultiByteToWideChar(codePage, 0, text, -1, nullptr, 0);
    if (n <= 1) return {};
    std::wstring wide(static_cast<std::size_t>(n), L'\0');
    ::MultiByteToWideChar(codePage, 0, text, -1, wide.data(), n);
    wide.resize(static_cast<std::size_t>(n - 1));
    return wide;
}

std::string Utf8(const std::wstring& text) {
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1) return {};
    std::string narrow(static_cast<std::size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, narrow.data(), n, nullptr, nullptr);
    narrow.resize(static_cast<std::size_t>(n - 1));
    return narrow;
}

FNALLOC(Allocate) { return ::HeapAlloc(::GetProcessHeap(), 0, cb); }
FNFREE(Release) { ::HeapFree(::GetProcessHeap(), 0, pv); }

// FDI opens only cabinets: the one asked for and those that continue it, by
// their UTF-8 names in the first one's folder.
FNOPEN(OpenCabinet) {
    (void)oflag;
    (void)pmode;
    if (current == nullptr) return -1;
    const std::wstring path = LongPathForm(JoinPath(current->cabinetFolder, Widen(pszFile, CP_UTF8)));
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    return reinterpret_cast<INT_PTR>(file);
}

FNREAD(ReadBytes) {
    DWORD done = 0;
    return ::ReadFile(reinterpret_cast<HANDLE>(hf), pv, cb, &done, nullptr) ? done : static_cast<UINT>(-1);
}

FNWRITE(WriteBytes) {
    DWORD done = 0;
    if (::WriteFile(reinterpret_cast<HANDLE>(hf), pv, cb, &done, nullptr)) return done;
    if (current != nullptr) current->writeError = ::GetLastError();
    return static_cast<UINT>(-1);
}

FNCLOSE(CloseFile) {
    if (current != nullptr) current->open.erase(reinterpret_cast<HANDLE>(hf));
    return ::CloseHandle(reinterpret_cast<HANDLE>(hf)) ? 0 : -1;
}

FNSEEK(SeekFile) {
    const DWORD method = seektype == SEEK_CUR ? FILE_CURRENT : seektype == SEEK_END ? FILE_END : FILE_BEGIN;
    return static_cast<__LONG32>(::SetFilePointer(reinterpret_cast<HANDLE>(hf), dist, nullptr, method));
}

// A new output file for the cabinet's entry `name`, its folders created.
INT_PTR CreateOutput(Extraction& extraction, const std::wstring& name) {
    std::wstring relative = name;
    for (wchar_t& c : relative) {
        if (c == L'/') c = L'\\';
    }
    const std::wstring path = JoinPath(extraction.folder, relative);
    try {
        CreateFolders(LongPathForm(DirectoryOf(path)));
    } catch (const Exception&) {
        extraction.writeError = ::GetLastError();
        return -1;
    }
    HANDLE file = ::CreateFileW(LongPathForm(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        extraction.writeError = ::GetLastError();
        return -1;
    }
    extraction.open.emplace(file, path);
    if (extraction.seen.insert(PathKey(relative)).second) extraction.names.push_back(relative);
    return reinterpret_cast<INT_PTR>(file);
}

// The entry's times (a cabinet keeps local time) and attributes, then closed.
void FinishOutput(Extraction& extraction, const FDINOTIFICATION& info) {
    HANDLE file = reinterpret_cast<HANDLE>(info.hf);
    FILETIME local, utc;
    if (::DosDateTimeToFileTime(info.date, info.time, &local) && ::LocalFileTimeToFileTime(&local, &utc)) {
        ::SetFileTime(file, &utc, &utc, &utc);
    }
    const auto entry = extraction.open.find(file);
    const std::wstring path = entry == extraction.open.end() ? std::wstring() : entry->second;
    if (entry != extraction.open.end()) extraction.open.erase(entry);
    ::CloseHandle(file);
    const DWORD kept = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                       FILE_ATTRIBUTE_ARCHIVE;
    const DWORD attributes = info.attribs & kept;
    if (attributes != 0 && !path.empty()) ::SetFileAttributesW(LongPathForm(path).c_str(), attributes);
}

FNFDINOTIFY(Notify) {
    Extraction& extraction = *static_cast<Extraction*>(pfdin->pv);
    switch (fdint) {
    case fdintCOPY_FILE: {
        const std::wstring name = Widen(pfdin->psz1, (pfdin->attribs & _A_NAME_IS_UTF) ? CP_UTF8 : CP_ACP);
        if (const std::wstring why = CabinetNameProblem(name); !why.empty()) {
            extraction.refusal = L"Refused to extract '" + name + L"' from cabinet '" + extraction.cabinet + L"': " +
                                 why + L".";
            return -1;
        }
        return CreateOutput(extraction, name);
    }
    case fdintCLOSE_FILE_INFO:
        FinishOutput(extraction, *pfdin);
        return TRUE;
    default:
        return 0;  // cabinet information, partial files, the next cabinet in the same folder
    }
}

const wchar_t* FdiErrorText(int error) {
    switch (error) {
    case FDIERROR_CABINET_NOT_FOUND: return L"the cabinet (or the next one of its set) was not found";
    case FDIERROR_NOT_A_CABINET: return L"it is not a cabinet file";
    case FDIERROR_UNKNOWN_CABINET_VERSION: return L"the cabinet's version is unknown";
    case FDIERROR_CORRUPT_CABINET: return L"the cabinet is corrupt";
    case FDIERROR_ALLOC_FAIL: return L"out of memory";
    case FDIERROR_BAD_COMPR_TYPE: return L"the cabinet uses an unknown compression";
    case FDIERROR_MDI_FAIL: return L"the cabinet's data is corrupt";
    case FDIERROR_TARGET_FILE: return L"a file could not be written";
    case FDIERROR_RESERVE_MISMATCH: return L"the cabinet's reserved sizes do not match its set";
    case FDIERROR_WRONG_CABINET: return L"the next cabinet does not belong to the set";
    default: return L"the extraction was stopped";
    }
}

using CreateFn = HFDI(DIAMONDAPI*)(PFNALLOC, PFNFREE, PFNOPEN, PFNREAD, PFNWRITE, PFNCLOSE, PFNSEEK, int, PERF);
using IsCabinetFn = BOOL(DIAMONDAPI*)(HFDI, INT_PTR, PFDICABINETINFO);
using CopyFn = BOOL(DIAMONDAPI*)(HFDI, char*, char*, int, PFNFDINOTIFY, PFNFDIDECRYPT, void*);
using DestroyFn = BOOL(DIAMONDAPI*)(HFDI);

// Clears the thread's pointer and closes what FDI left open when it stopped.
class ExtractionScope {
public:
    explicit ExtractionScope(Extraction& extraction) : extraction_(extraction) { current = &extraction; }
    ~ExtractionScope() {
        for (const auto& entry : extraction_.open) ::CloseHandle(entry.first);
        current = nullptr;
    }
    ExtractionScope(const ExtractionScope&) = delete;
    ExtractionScope& operator=(const ExtractionScope&) = delete;

private:
    Extraction& extraction_;
};

}  // namespace

std::vector<std::wstring> CabinetLibrary::Extract(const std::wstring& cabinet, const std::wstring& folder) {
    const std::wstring failed = L"Failed to extract cabinet '" + cabinet + L"': ";
    if (!module_) module_.Reset(::LoadLibraryW(L"cabinet.dll"));
    ThrowLastErrorIf(!module_, failed + L"cabinet.dll cannot be loaded.");
    const auto create = GetProcedure<CreateFn>(module_.Get(), "FDICreate");
    const auto isCabinet = GetProcedure<IsCabinetFn>(module_.Get(), "FDIIsCabinet");
    const auto copy = GetProcedure<CopyFn>(module_.Get(), "FDICopy");
    const auto destroy = GetProcedure<DestroyFn>(module_.Get(), "FDIDestroy");
    if (!create || !isCabinet || !copy || !destroy) Throw(kFail, failed + L"cabinet.dll lacks the FDI functions.");

    Extraction extraction;
    extraction.cabinetFolder = DirectoryOf(cabinet);
    extraction.cabinet = cabinet;
    extraction.folder = folder;
    ExtractionScope scope(extraction);
    ERF erf{};
    HFDI fdi = create(Allocate, Release, OpenCabinet, ReadBytes, WriteBytes, CloseFile, SeekFile, cpuUNKNOWN, &erf);
    if (fdi == nullptr) Throw(kFail, failed + L"FDICreate failed.");
    struct Destroy {
        DestroyFn destroy;
        HFDI fdi;
        ~Destroy() { destroy(fdi); }
    } destroyLater{destroy, fdi};

    std::string name = Utf8(cabinet.substr(extraction.cabinetFolder.size() + 1));
    {
        FileHandle file(reinterpret_cast<HANDLE>(OpenCabinet(name.data(), 0, 0)));
        ThrowLastErrorIf(!file, failed + L"it cannot be opened.");
        FDICABINETINFO info{};
        if (!isCabinet(fdi, reinterpret_cast<INT_PTR>(file.Get()), &info)) {
            Throw(HResultFromWin32(ERROR_BAD_FORMAT), failed + L"it is not a cabinet file.");
        }
    }
    char path[] = "";
    if (!copy(fdi, name.data(), path, 0, Notify, nullptr, &extraction)) {
        if (!extraction.refusal.empty()) Throw(HResultFromWin32(ERROR_ACCESS_DENIED), extraction.refusal);
        if (extraction.writeError != 0) {
            Throw(FailureFromWin32(extraction.writeError), failed + FdiErrorText(FDIERROR_TARGET_FILE) + L".");
        }
        Throw(HResultFromWin32(ERROR_BAD_FORMAT), failed + FdiErrorText(erf.erfOper) + L".");
    }
    return extraction.names;
}

}  // namespace setup
