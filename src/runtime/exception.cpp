#include "runtime/exception.h"

#include <utility>

namespace setup {

Exception::Exception(HResult code, std::wstring message, std::wstring userMessage)
    : code_(code), message_(std::move(message)), userMessage_(std::move(userMessage)) {
    narrow_.reserve(message_.size());
    for (const wchar_t c : message_) narrow_.push_back(c < 0x80 ? static_cast<char>(c) : '?');
}

InstallCanceledException::InstallCanceledException(std::wstring message)
    : Exception(kCanceled, std::move(message)) {}

}  // namespace setup
