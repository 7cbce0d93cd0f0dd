#pragma once
// Localised names of well-known accounts, published as installer properties so
// that a package can name service accounts and groups in any language.

#include <string>

#include "runtime/session.h"

namespace setup {

// The account name (no domain) of a WELL_KNOWN_SID_TYPE. Throws on failure:
// "Failed to create SID.", "Failed to get sid name of domain size.",
// "Failed to look up account for SID.".
std::wstring GetWellKnownAccountName(int sidType);

// Sets the seven ACCOUNT_* properties, in their fixed order; the first failure
// ends the action and leaves the properties set so far.
void GetWellKnownSids(Session& session);

}  // namespace setup
