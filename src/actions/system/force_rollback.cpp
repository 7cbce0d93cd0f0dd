#include "actions/system/force_rollback.h"

#include "runtime/exception.h"
#include "runtime/hresult.h"

namespace setup {

void ForceRollback(Session&) {
    throw Exception(kAborted, L"Rollback forced on request (SETUPUTILS_FORCE_ROLLBACK is set).");
}

}  // namespace setup
