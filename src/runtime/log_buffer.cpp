#include "runtime/log_buffer.h"

#include <utility>

namespace setup {

LogBuffer::LogBuffer(Sink sink) : sink_(std::move(sink)) {}

void LogBuffer::Append(const std::wstring& line) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!pending_.empty()) pending_.push_back(L'\n');
    pending_.append(line);
    ++pendingCount_;
    if (threshold_ < pendingCount_) {
        FlushLocked();
        pendingCount_ = 0;
    }
}

void LogBuffer::SetThreshold(unsigned threshold) {
    std::lock_guard<std::mutex> guard(lock_);
    threshold_ = threshold;
}

void LogBuffer::Flush() {
    std::lock_guard<std::mutex> guard(lock_);
    FlushLocked();
    pendingCount_ = 0;
}

void LogBuffer::Discard() noexcept {
    try {
        std::lock_guard<std::mutex> guard(lock_);
        pending_.clear();
        pendingCount_ = 0;
        threshold_ = 0;
    } catch (...) {  // a lock that cannot be taken: nothing to drop safely
    }
}

void LogBuffer::FlushLocked() {
    if (pending_.empty()) return;
    sink_(pending_);
    pending_.clear();
}

}  // namespace setup
