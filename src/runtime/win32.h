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
