#pragma once
// The program log: the lines the features write into the installer log.
//
// LogInfo formats a line, puts the program's prefix in front of it
// ("<log name> (<pid>:<tid>) [hh:mm:ss:mmm]: ") and appends it to the process's
// line buffer, which sends it as an information message. Any thread may log;
// the buffer's lock keeps lines whole and in order. Installer errors while
// sending are ignored: logging never throws to its caller.

#include <string>
#include <vector>

#include "runtime/exception.h"
#include "runtime/format.h"
#include "runtime/log_sink.h"

namespace setup {

void LogLine(const std::wstring& text);

template <class... Args>
void LogInfo(FormatString<Args...> format, const Args&... args) {
    LogLine(Format(format, args...));
}

// The values no line may show (the hidden properties' values, see
// MaskSecrets); set by the frame for the duration of one action.
void SetLogSecrets(std::vector<std::wstring> secrets);
// True when `text` holds one of those values (it would be masked in a line):
// data made from it is secret too.
bool HoldsLogSecret(std::wstring_view text);
// The text with those values masked, as a line would show it.
std::wstring MaskLogSecrets(std::wstring_view text);

// The one line of an immediate action that schedules nothing, after the lines
// of its rows: "Nothing to schedule: none of the <n> <table> rows is for a
// component being <task>." (`task`: "installed or reinstalled", "removed", ...).
void LogNothingToSchedule(std::size_t rows, std::wstring_view table, std::wstring_view task);

// Lines travel in one message once more than `threshold` are pending; features
// that log per file raise it to 100 and set it back to 0 when done.
void SetLogBatch(unsigned threshold);
void FlushLog();
// Drops pending lines unsent (after a failure inside logging itself).
void DiscardLog() noexcept;

// For rollback and commit, which go on after a failed step: runs `step`; a
// setup::Exception is logged ("<message> Error 0x<hr>.") and goes no further.
template <class Step>
void Leniently(Step step) {
    try {
        step();
    } catch (const Exception& e) {
        LogInfo(L"%s Error 0x%x.", e.Message(), e.Code());
    }
}

// The program log as a LogSink, for core code that is handed one.
class ProgramLogSink final : public LogSink {
public:
    void Line(std::wstring_view text) override { LogLine(std::wstring(text)); }
};

}  // namespace setup
