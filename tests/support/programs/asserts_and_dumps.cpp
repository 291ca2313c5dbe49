#include <windows.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "error_handler.h"
#include "exception_history.h"
#include "modul_assert.h"
#include "trace_point.h"
#include "wine_gap_loader.h"

TRACE_SOURCE("tests\\support\\programs\\asserts_and_dumps", "4b6d0c92-8f17-4e3a-a5c1-9d2e7f60b834",
             trace::kModule);

// Throws some exceptions, then fails an assertion, whose user wants a dump: a real one of a real process, for
// the tools that read dumps. Prints its path and how long it took.
namespace {

class UserWhoWantsADump : public operating_system::SystemMessageBox {
  public:
    DWORD Show(const wchar_t*, const wchar_t*, DWORD) override { return IDRETRY; }
};

std::shared_ptr<operating_system::MemoryDump> memoryDump = std::make_shared<operating_system::MemoryDump>();
trace::ErrorHandler errorHandler(L"asserts_and_dumps.exe", L"today", L"V1", memoryDump,
                                 std::make_shared<UserWhoWantsADump>());

void ThrowNumber(int number) {
    try {
        MODUL_THROW(std::runtime_error("exception number " + std::to_string(number)));
    } catch (const std::runtime_error&) {
        return;  // filed in the history
    }
}

[[gnu::noinline]] void FunctionThatAsserts(int value) {
    MODUL_ASSERT(value == 42);
    std::fflush(stdout);
}

}  // namespace

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    errorHandler.FatalError(expression, sourcePath, line);
}

void _ModulSysLog_00(unsigned int, unsigned int) {}

int wmain() {
    LoadWineGap();
    modul_exception::InitializeExceptionHistory();
    for (int number = 1; number <= 7; ++number)
        ThrowNumber(number);
    const HANDLE end = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread idle([end] { ::WaitForSingleObject(end, INFINITE); });
    const ULONGLONG start = ::GetTickCount64();
    FunctionThatAsserts(41);
    std::printf("%ls\n%llu ms\n", memoryDump->GetMemoryDumpAbsFileName().c_str(), ::GetTickCount64() - start);
    ::SetEvent(end);
    idle.join();
    ::CloseHandle(end);
    return 0;
}
