#pragma once
// The one place that includes the Windows and Windows Installer headers.
// Only files of the Windows build include this; portable code never does.

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif

#include <windows.h>
#include <msi.h>
#include <msiquery.h>

namespace setup {

// A function of `module` looked up at run time as the type `Fn`; null when the
// module lacks it (an older system). The one place that casts a FARPROC.
template <class Fn>
Fn GetProcedure(HMODULE module, const char* name) {
    if (module == nullptr) return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace setup
