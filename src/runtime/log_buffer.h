#pragma once
// The program log's line buffer: lines accumulate and travel to the installer
// in one message once more than `threshold` are pending (threshold 0 sends
// each line at once). Append, SetThreshold and Flush hold one lock, and the
// sink is called under it, so lines from any thread keep their order.

#include <functional>
#include <mutex>
#include <string>

namespace setup {

class LogBuffer {
public:
    using Sink = std::function<void(const std::wstring& message)>;

    explicit LogBuffer(Sink sink);

    // Joins the line to the pending text with "\n" and flushes when the count
    // of pending lines exceeds the threshold.
    void Append(const std::wstring& line);
    void SetThreshold(unsigned threshold);
    // Sends whatever is pending (nothing when empty) and resets the count.
    void Flush();
    // Drops whatever is pending, unsent, and sends each line at once from then on.
    void Discard() noexcept;

private:
    void FlushLocked();

    Sink sink_;
    std::mutex lock_;
    std::wstring pending_;
    unsigned pendingCount_ = 0;
    unsigned threshold_ = 0;
};

}  // namespace setup
