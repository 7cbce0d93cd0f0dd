#pragma once
// PerfmonEx: performance counter sets registered and unregistered through the
// platform's loadperf.dll (legacy .ini sets) or its lodctr/unlodctr tools
// (counters manifests), with the registry they touch put back exactly on
// rollback and a stale registration never failing the install
// (docs/PerfmonEx.md).

#include "runtime/session.h"

namespace setup {

void RegisterPerfmonEx(Session& session);
void RegisterPerfmonExDeferred(Session& session);
void UnregisterPerfmonEx(Session& session);
void UnregisterPerfmonExDeferred(Session& session);

}  // namespace setup
