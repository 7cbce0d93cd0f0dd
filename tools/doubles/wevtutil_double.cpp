// Stands in for the system's wevtutil.exe in end-to-end tests. Every call
// appends its command line (UTF-8, one per line) to C:\wevtutil-double\calls.txt.
// C:\wevtutil-double\rules.txt decides the exit code: each line is
// "<text><TAB><code>[<TAB><bytes>]", and the first line whose text occurs in
// the command line gives the code (and, with <bytes>, that much output first:
// numbered 100-byte lines in one write); no match exits with 0.

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string Utf8(const std::wstring& text) {
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), out.data(), size, nullptr,
                          nullptr);
    return out;
}

}  // namespace

int main() {
    const std::string commandLine = Utf8(::GetCommandLineW());
    {
        std::ofstream calls("C:\\wevtutil-double\\calls.txt", std::ios::app | std::ios::binary);
        calls << commandLine << "\n";
    }
    std::ifstream rules("C:\\wevtutil-double\\rules.txt", std::ios::binary);
    std::string rule;
    while (std::getline(rules, rule)) {
        if (!rule.empty() && rule.back() == '\r') rule.pop_back();
        const std::size_t tab = rule.find('\t');
        if (tab == std::string::npos || tab == 0) continue;
        if (commandLine.find(rule.substr(0, tab)) != std::string::npos) {
            const std::size_t second = rule.find('\t', tab + 1);
            if (second != std::string::npos) {
                std::string all;
                for (long line = 0; line * 100 < std::atol(rule.c_str() + second + 1); ++line) {
                    std::string text = "line " + std::to_string(line) + " ";
                    text.resize(98, 'x');
                    all += text + "\r\n";
                }
                DWORD out = 0;
                ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), all.data(), static_cast<DWORD>(all.size()), &out,
                            nullptr);
            }
            const std::string message = "wevtutil double: failing '" + commandLine + "'\r\n";
            DWORD written = 0;
            ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), message.data(), static_cast<DWORD>(message.size()),
                        &written, nullptr);
            return std::atoi(rule.c_str() + tab + 1);
        }
    }
    const char ok[] = "wevtutil double: ok\r\n";
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), ok, sizeof(ok) - 1, &written, nullptr);
    return 0;
}
