#include "runtime/throw.h"

#include <utility>

namespace setup {

void Throw(HResult code, std::wstring message) {
    throw Exception(code, std::move(message));
}

}  // namespace setup
