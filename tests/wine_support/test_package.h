#pragma once
// Support for the in-process Wine tests: real installer sessions on packages
// that a test creates at run time, a scratch directory that removes itself,
// and a capture of the messages the installer receives.

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/action_frame.h"
#include "runtime/exception.h"
#include "runtime/unique_handle.h"

namespace setup::test {

// Runs `f` and returns the setup::Exception it threw; fails the test when none.
template <class F>
Exception Thrown(F f) {
    try {
        f();
    } catch (const Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no exception";
    return Exception(0, L"");
}

// A fresh directory under %TEMP%, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::wstring& Path() const { return path_; }
    std::wstring File(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

// A package database made at run time and opened as an installer session.
// Tables: Property and Directory (TARGETDIR); more through Sql() before Open().
class TestPackage {
public:
    TestPackage();
    ~TestPackage();

    // Runs one SQL statement on the database before it is opened.
    void Sql(const std::wstring& query);
    // Commits the database (the first time) and opens a session on it (UI level none).
    MSIHANDLE Open();
    MSIHANDLE Session() const { return session_.Get(); }

private:
    TempDir dir_;
    std::wstring path_;
    MsiHandle database_;
    MsiHandle session_;
};

// Captures the installer's messages for its lifetime (MsiSetExternalUIW).
// `reply` decides the handler's answer; it defaults to 0 (not handled).
class MessageCapture {
public:
    explicit MessageCapture(std::function<int(UINT type, const std::wstring& text)> reply = {});
    ~MessageCapture();

    std::vector<std::wstring> Info() const;      // lines of the information messages, in order
    bool HadError() const;                       // an error message (a dialog) came
    bool HasInfo(const std::wstring& text) const;  // some information line ends with `text`
    std::wstring AllInfo() const;                // every information line, joined by '\n'

    struct Message {
        UINT type;
        std::wstring text;
    };
    std::vector<Message> messages;
    std::function<int(UINT, const std::wstring&)> reply;

private:
    INSTALLUI_HANDLERW previous_ = nullptr;
    DWORD previousFilter_ = 0;
    void* previousContext_ = nullptr;
};

// Runs `work` inside an action frame on `session` and returns every
// information line the installer received meanwhile, joined by '\n'.
template <class F>
std::wstring LoggedIn(MSIHANDLE session, F work) {
    MessageCapture capture;
    RunAction(session, "TestWork", ActionError::None, [&](Session&) { work(); });
    return capture.AllInfo();
}

// The command line that runs the scripted child program (tests/tools/child_process.cpp) with `steps`.
std::wstring ChildProcessCommand(const std::wstring& steps);

}  // namespace setup::test
