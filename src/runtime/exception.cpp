#include "runtime/exception.h"

#include <new>
#include <utility>

#include "runtime/format.h"

namespace setup {

Exception::Exception(HResult code, std::wstring message, std::wstring userMessage)
    : code_(code), message_(std::move(message)), userMessage_(std::move(userMessage)) {
    narrow_.reserve(message_.size());
    for (const wchar_t c : message_) narrow_.push_back(c < 0x80 ? static_cast<char>(c) : '?');
}

CaughtFailure CurrentFailure() {
    CaughtFailure failure;
    try {
        throw;
    } catch (const InstallCanceledException& e) {
        failure = {CaughtFailure::Kind::Canceled, e.Code(), Format(L"%s Error 0x%x.", e.Message(), e.Code()), {},
                   e.Message()};
    } catch (const Exception& e) {
        failure = {CaughtFailure::Kind::Failure, e.Code(), Format(L"%s Error 0x%x.", e.Message(), e.Code()),
                   e.UserMessage(), e.Message()};
    } catch (const std::bad_alloc&) {
        failure = {CaughtFailure::Kind::OutOfMemory, kFail, L"Bad allocation error.", {}, L"Out of memory."};
    } catch (...) {
        failure = {CaughtFailure::Kind::Unknown, kFail, L"Unknown exception.", {}, L"An unexpected failure."};
    }
    return failure;
}

InstallCanceledException::InstallCanceledException(std::wstring message)
    : Exception(kCanceled, std::move(message)) {}

}  // namespace setup
