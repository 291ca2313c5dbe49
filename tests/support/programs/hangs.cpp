#include <windows.h>

// A program that hangs until it is told to go on, or for a minute.
int wmain() {
    constexpr DWORD kLongestMs = 60000;
    const HANDLE goOn = ::CreateEventW(nullptr, TRUE, FALSE, L"Global\\TESSA_TEST_GO_ON");
    ::WaitForSingleObject(goOn, kLongestMs);
    ::CloseHandle(goOn);
    return 0;
}
