// A child process for the runner's test and benchmark. Each argument is one step:
//   out:<text>   <text> and CR LF to standard output
//   bulk:<n>     n bytes of numbered 100-byte lines to standard output, in one write
//                (so the reader's reads cut lines anywhere)
//   sleep:<ms>   a pause
//   exit:<code>  ends with that code (0 when absent)
// Writes go straight to the handles, unbuffered, so each step is one write.

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void Write(DWORD stream, const std::string& text) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(stream), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool Starts(const char* arg, const char* prefix, const char** rest) {
    const std::size_t n = std::strlen(prefix);
    if (std::strncmp(arg, prefix, n) != 0) return false;
    *rest = arg + n;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const char* rest = nullptr;
        if (Starts(argv[i], "out:", &rest)) {
            Write(STD_OUTPUT_HANDLE, std::string(rest) + "\r\n");
        } else if (Starts(argv[i], "bulk:", &rest)) {
            const long total = std::atol(rest);
            std::string all;
            for (long line = 0; line * 100 < total; ++line) {
                std::string text = "line " + std::to_string(line) + " ";
                text.resize(98, 'x');
                all += text + "\r\n";
            }
            Write(STD_OUTPUT_HANDLE, all);
        } else if (Starts(argv[i], "sleep:", &rest)) {
            ::Sleep(static_cast<DWORD>(std::atol(rest)));
        } else if (Starts(argv[i], "exit:", &rest)) {
            return std::atoi(rest);
        }
    }
    return 0;
}
