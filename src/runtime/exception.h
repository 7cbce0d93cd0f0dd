#pragma once
// The failure of an action's work. Thrown where a failure happens and caught
// once, in the action frame, which logs Message() with the code and passes
// UserMessage() to the installer's error dialog.

#include <exception>
#include <string>

#include "runtime/hresult.h"

namespace setup {

class Exception : public std::exception {
public:
    Exception(HResult code, std::wstring message, std::wstring userMessage = {});

    HResult Code() const noexcept { return code_; }
    std::wstring Message() const { return message_; }
    std::wstring UserMessage() const { return userMessage_; }
    const char* what() const noexcept override { return narrow_.c_str(); }

private:
    HResult code_;
    std::wstring message_;
    std::wstring userMessage_;
    std::string narrow_;  // ASCII rendering of message_ for what()
};

// A cancel by the user (HRESULT form of ERROR_INSTALL_USEREXIT, no dialog text).
class InstallCanceledException : public Exception {
public:
    explicit InstallCanceledException(std::wstring message);
};

// What a catch-all handler caught, for the places that must not let anything
// through (the action frame, threads of our own): call inside `catch (...)`.
struct CaughtFailure {
    enum class Kind { Canceled, Failure, OutOfMemory, Unknown };
    Kind kind = Kind::Unknown;
    HResult code = kFail;
    std::wstring logText;      // "<message> Error 0x<hr>.", "Bad allocation error." or "Unknown exception."
    std::wstring userMessage;  // for the installer's error dialog
    std::wstring reason;       // the message alone, without the code
};
CaughtFailure CurrentFailure();

}  // namespace setup
