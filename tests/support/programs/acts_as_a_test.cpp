#include <windows.h>

#include <cstdio>
#include <string>

// What a test program can do. The argument says what:
//   passes, skips, fails, vanishes (ends well without a word of a passed test), hangs (with a child that
//   hangs too), prints NAME (passes after the value of a variable)
int wmain(int argc, wchar_t** argv) {
    const std::wstring what = argc > 1 ? argv[1] : L"";
    if (what == L"prints" && argc == 3) {
        wchar_t value[64] = L"nothing";
        ::GetEnvironmentVariableW(argv[2], value, ARRAYSIZE(value));
        std::printf("%ls\n[  PASSED  ] 1 test.\n", value);
    }
    if (what == L"passes") std::puts("[  PASSED  ] 1 test.");
    if (what == L"skips") std::puts("[  PASSED  ] 0 tests.\n[  SKIPPED ] 1 test, listed below:");
    if (what == L"fails") std::puts("it is wrong on purpose\n[  PASSED  ] 0 tests.\n[  FAILED  ] 1 test");
    if (what == L"hangs") {
        std::puts("it hangs on purpose");
        std::fflush(stdout);
        // The child keeps what it inherits open: whoever waits for the end of the output waits for it as
        // well.
        std::wstring line = L"\"" + std::wstring(argv[0]) + L"\" sleeps";
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION child = {};
        ::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child);
    }
    constexpr DWORD kLongestMs = 60000;
    if (what == L"hangs" || what == L"sleeps") ::Sleep(kLongestMs);
    return what == L"fails" ? 1 : 0;
}
