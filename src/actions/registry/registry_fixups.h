#pragma once
// The registry fix-ups of the installer's own Registry table
// (docs/RegistryFixups.md):
// - FixQwordRegistry: immediate, it schedules itself as "FixQwordRegistryDeferred"
//   (the same entry point, run deferred) and "FixQwordRegistryRollback"; the
//   deferred run rewrites the RegistryQword rows' values as REG_QWORD in their
//   component's view, the rollback puts back what was there before the install.
// - FixRegistryIntegerProperties: immediate, before WriteRegistryValues: a
//   Registry value that is exactly "#[PROPERTY]" gets its property normalised
//   to the decimal the installer reads as the DWORD the author meant.

#include "runtime/session.h"

namespace setup {

void FixQwordRegistry(Session& session);
void FixQwordRegistryRollback(Session& session);
void FixRegistryIntegerProperties(Session& session);

}  // namespace setup
