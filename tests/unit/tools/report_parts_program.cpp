#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <io.h>
#include <string>
#include <vector>

#include "json.h"
#include "several_commands.h"
#include "text.h"

// The tests' program is also the one that they start: with an argument that is no option it does one of
// these.
namespace {

using tessactl::Json;
using Arguments = std::vector<std::wstring>;

void Print(const Json& json) {
    std::printf("%s\n", tessactl::JsonText(json).c_str());
}

Json AsJson(const Arguments& arguments) {
    Json json = Json::array();
    for (const std::wstring& argument : arguments)
        json.push_back(tessactl::Utf8(argument));
    return json;
}

[[noreturn]] void Hang() {
    std::fflush(stdout);
    ::Sleep(INFINITE);
    std::abort();
}

/// As many numbers as there are to be records at most.
void PrintLog(const Arguments& arguments) {
    Json records = Json::array();
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i)
        if (arguments[i] == L"--count")
            for (int record = 0; record < std::stoi(arguments[i + 1]); ++record)
                records.push_back(record);
    Print(records);
}

void PrintDumps() {
    Json dumps = Json::array();
    for (int i = 1; i <= 7; ++i)
        dumps.push_back({{"file", "C:\\some folder\\" + std::to_string(i)}});
    Print(dumps);
}

/// More than a pipe holds, to both ends.
void PrintMuch(std::size_t length) {
    for (FILE* end : {stderr, stdout})
        std::fputs(std::string(length, end == stderr ? 'e' : 'o').c_str(), end);
}

/// What stands behind a command that ended with 3, many times.
void PrintMarks() {
    for (int i = 0; i < 1000; ++i)
        std::printf("%c3\n", '\x1E');
}

[[noreturn]] void PrintWithoutEnd() {
    const std::string much(1 << 20, 'x');
    DWORD written = 0;
    while (::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), much.data(), static_cast<DWORD>(much.size()),
                       &written, nullptr))
        continue;
    std::abort();
}

int Act(const Arguments& arguments) {
    if (arguments[0] == L"several") {
        tessactl::RunSeveral({arguments.begin() + 1, arguments.end()}, &Act);
        return 0;
    }
    const std::wstring& command = arguments[0];
    const std::wstring what = arguments.size() > 1 ? arguments[1] : L"";
    if (command == L"log" && what == L"--json" && arguments.back() != L"fenlu3")
        PrintLog(arguments);
    else if (command == L"dump" && what == L"list")
        PrintDumps();
    else if (command == L"much")
        PrintMuch(300'000);
    else if (command == L"marks")
        PrintMarks();
    else if (command == L"endless")
        PrintWithoutEnd();
    else if (command == L"hangs") {
        ::CreateMutexW(nullptr, FALSE, what.c_str());
        std::fputs("before", stdout);
        Hang();
    } else if (command == L"ends")
        return std::stoi(what);
    else if (what == L"station")
        std::fputs("tessactl: no station\r\ntessactl: at all\n", stderr);
    else if (what == L"components")
        ::TerminateProcess(::GetCurrentProcess(), 0xE0D5);
    else if (what == L"service" && arguments[3] == L"hangs")
        Hang();
    else if (what == L"host-log")
        std::fputs("{\"lines\":[", stdout);
    else
        Print(AsJson(arguments));
    if (command == L"trace") std::fputs("tessactl: something to note\n", stderr);
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    ::_setmode(::_fileno(stdout), _O_BINARY);
    int count = 0;
    wchar_t** all = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (count > 1 && *all[1] != L'-') return Act({all + 1, all + count});
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
