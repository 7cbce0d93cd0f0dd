#pragma once
// The program log as portable code sees it. Core decisions write their lines
// here; the action frame hands in the installer log, host tests a recorder.

#include <string>
#include <string_view>
#include <vector>

#include "runtime/format.h"

namespace setup {

class LogSink {
public:
    virtual ~LogSink() = default;
    // One finished line, without the program's prefix.
    virtual void Line(std::wstring_view text) = 0;

    template <class... Args>
    void Info(FormatString<Args...> format, const Args&... args) {
        Line(Format(format, args...));
    }
};

// Keeps every line; for tests and for callers that decide later what to log.
class RecordingLogSink final : public LogSink {
public:
    void Line(std::wstring_view text) override { lines.emplace_back(text); }
    std::vector<std::wstring> lines;
};

}  // namespace setup
