#pragma once
// GetOsVersionInfo: sets OS_* properties from the system's true version and
// machine, where the installer's own VersionNT stops at 603 on Windows 10 and
// 11 and says nothing of ARM64 (docs/GetOsVersionInfo.md).

#include "runtime/session.h"

namespace setup {

void GetOsVersionInfo(Session& session);

}  // namespace setup
