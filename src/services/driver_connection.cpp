#include "services/driver_connection.h"

namespace setup {

// No driver protocol is defined for this library yet: without a driver there
// is nothing to tell, and both calls succeed.
void DriverConnection::DisablePendingFileRenameMonitoring() {}
void DriverConnection::EnablePendingFileRenameMonitoring() {}

}  // namespace setup
