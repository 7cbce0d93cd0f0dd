#pragma once
// The connection to the product's file-system filter driver. While this
// library rewrites the restart-time rename list it marks its thread so the
// driver does not watch that write. With no driver installed (the usual case,
// and always under Wine) both calls succeed and do nothing.

namespace setup {

class DriverConnection {
public:
    // Marks the current thread: pending-file-rename monitoring off.
    void DisablePendingFileRenameMonitoring();
    // Clears the mark again.
    void EnablePendingFileRenameMonitoring();
};

// Marks the current thread for its lifetime.
class PendingRenameMonitoringPause {
public:
    explicit PendingRenameMonitoringPause(DriverConnection& driver) : driver_(driver) {
        driver_.DisablePendingFileRenameMonitoring();
    }
    ~PendingRenameMonitoringPause() { driver_.EnablePendingFileRenameMonitoring(); }
    PendingRenameMonitoringPause(const PendingRenameMonitoringPause&) = delete;
    PendingRenameMonitoringPause& operator=(const PendingRenameMonitoringPause&) = delete;

private:
    DriverConnection& driver_;
};

}  // namespace setup
