#pragma once
// ForceRollback: a deferred action that always fails, so that an author can
// watch the installer take back everything scheduled before it
// (docs/ForceRollback.md). The kit schedules it only while the property
// SETUPUTILS_FORCE_ROLLBACK is set.

#include "runtime/session.h"

namespace setup {

void ForceRollback(Session& session);

}  // namespace setup
