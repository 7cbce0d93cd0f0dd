#pragma once
// Sole ownership of one operating-system or installer handle. Each handle kind
// is a traits type naming the handle type, its invalid value and how it is
// closed. Owners move but never copy; closing never changes the thread's last
// error, so an error code read after a failure survives the clean-up.

#include <utility>

#include "runtime/win32.h"

namespace setup {

template <class Traits>
class UniqueHandle {
public:
    using Type = typename Traits::Type;

    UniqueHandle() noexcept : value_(Traits::Invalid()) {}
    explicit UniqueHandle(Type value) noexcept : value_(value) {}
    UniqueHandle(UniqueHandle&& other) noexcept : value_(other.Release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { Reset(); }

    Type Get() const noexcept { return value_; }
    bool IsValid() const noexcept { return value_ != Traits::Invalid(); }
    explicit operator bool() const noexcept { return IsValid(); }

    Type Release() noexcept { return std::exchange(value_, Traits::Invalid()); }
    void Reset(Type value = Traits::Invalid()) noexcept {
        const Type old = std::exchange(value_, value);
        if (old != Traits::Invalid()) {
            const DWORD lastError = ::GetLastError();
            Traits::Close(old);
            ::SetLastError(lastError);
        }
    }
    // For out-parameters of creating calls: the current handle is closed first.
    Type* Put() noexcept {
        Reset();
        return &value_;
    }

private:
    Type value_;
};

struct MsiHandleTraits {
    using Type = MSIHANDLE;
    static Type Invalid() { return 0; }
    static void Close(Type h) { ::MsiCloseHandle(h); }
};
struct KernelHandleTraits {  // processes, threads, pipes, mutexes: null when absent
    using Type = HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { ::CloseHandle(h); }
};
struct FileHandleTraits {  // CreateFileW reports failure as INVALID_HANDLE_VALUE
    using Type = HANDLE;
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { ::CloseHandle(h); }
};
struct FindHandleTraits {
    using Type = HANDLE;
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { ::FindClose(h); }
};
struct RegistryKeyTraits {
    using Type = HKEY;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { ::RegCloseKey(h); }
};
struct ModuleTraits {
    using Type = HMODULE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { ::FreeLibrary(h); }
};

using MsiHandle = UniqueHandle<MsiHandleTraits>;
using KernelHandle = UniqueHandle<KernelHandleTraits>;
using FileHandle = UniqueHandle<FileHandleTraits>;
using FindHandle = UniqueHandle<FindHandleTraits>;
using RegistryKey = UniqueHandle<RegistryKeyTraits>;
using ModuleHandle = UniqueHandle<ModuleTraits>;

}  // namespace setup
