// Shared by the performance-counter doubles (loadperf.dll, lodctr.exe,
// unlodctr.exe): every call appends "<what>|<command line>" (UTF-8) to
// C:\perf-double\calls.txt, and C:\perf-double\rules.txt chooses the result:
// each line is "<text><TAB><code>", and the first line whose text occurs in
// "<what>|<command line>" gives the code; no match gives 0.
#pragma once

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace perf_double {

inline std::string Utf8(const std::wstring& text) {
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string out(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
    return out;
}

inline unsigned long Call(const std::wstring& what, const std::wstring& command) {
    const std::string line = Utf8(what + L"|" + command);
    {
        std::ofstream calls("C:\\perf-double\\calls.txt", std::ios::app | std::ios::binary);
        calls << line << "\n";
    }
    std::ifstream rules("C:\\perf-double\\rules.txt", std::ios::binary);
    std::string rule;
    while (std::getline(rules, rule)) {
        if (!rule.empty() && rule.back() == '\r') rule.pop_back();
        const std::size_t tab = rule.find('\t');
        if (tab != std::string::npos && tab > 0 && line.find(rule.substr(0, tab)) != std::string::npos) {
            return std::strtoul(rule.c_str() + tab + 1, nullptr, 10);
        }
    }
    return 0;
}

}  // namespace perf_double
