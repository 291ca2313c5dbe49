#include "tessaplug_orvix.h"

#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_orvix", "b81f3d6e-24a7-4c59-9e02-8d5c7a1f6b35", trace::kModule);

using modul_exception::CWindowsApiExcp;

namespace quelm {
namespace {

const std::wstring kFileName = L"q5panels.exe";
const std::wstring kArguments = L"-silent -force -ci";
constexpr DWORD kTimeOutMs = 10000;

}  // namespace

TvorPanel::TvorPanel(std::shared_ptr<windows_api::CKernel32> kernel32) : kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
}

std::wstring TvorPanel::CreateAbsoluteDllPath() const {
    FUNCTION_TRACE();
    return windows_api::GetSysWoW64Directory() + L"\\" + kFileName;
}

void TvorPanel::CallSilent() {
    FUNCTION_TRACE();
    // Not quoted: the system folder has no blanks.
    std::wstring cmdLine = CreateAbsoluteDllPath() + L" " + kArguments;
    MODUL_ASSERT(cmdLine.length() < 32768);
    STARTUPINFOW startup = {};
    static_assert(sizeof startup == 104);
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    TRACE_VERBOSE(10, "Starting %S", cmdLine);
    if (!kernel32_->CreateProcessW(nullptr, cmdLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                                   &startup, &process))
        MODUL_THROW(CWindowsApiExcp("CreateProcessW()", toolbox::WstringToString(cmdLine)));
    TRACE_VERBOSE(11, "Process %u started", process.dwProcessId);
    try {
        WaitUntilTvorPanelFinished(process.hProcess);
    } catch (...) {
        TRACE_ERROR(12, "Waiting for process %u failed", process.dwProcessId);
        CloseProcessHandles(process);
        throw;
    }
    CloseProcessHandles(process);
}

void TvorPanel::WaitUntilTvorPanelFinished(HANDLE hProcess) const {
    FUNCTION_TRACE();
    MODUL_ASSERT(hProcess != NULL);
    TRACE_VERBOSE(13, "Waiting at most %u ms for %S", kTimeOutMs, kFileName);
    switch (kernel32_->WaitForSingleObject(hProcess, kTimeOutMs)) {
        case WAIT_OBJECT_0:
            TRACE_VERBOSE(14, "%S has ended", kFileName);
            return;
        case WAIT_ABANDONED:
            MODUL_THROW(std::runtime_error("Waiting for Tvor-Panel-Process -> WAIT_ABANDONED"));
        case WAIT_TIMEOUT:
            MODUL_THROW(std::runtime_error("Waiting for Tvor-Panel-Process -> WAIT_TIMEOUT"));
        default:
            MODUL_FAIL("INVALID Case for WaitForSingleObject()");
            [[fallthrough]];
        case WAIT_FAILED:
            MODUL_THROW(CWindowsApiExcp("WaitForSingleObject()", ""));
    }
}

void TvorPanel::CloseProcessHandles(const PROCESS_INFORMATION& process) const {
    FUNCTION_TRACE();
    for (const HANDLE handle : {process.hProcess, process.hThread})
        if (!kernel32_->CloseHandle(handle))
            TRACE_WARNING(15, "CloseHandle(%p) failed, LE(%u)", handle, ::GetLastError());
}

}  // namespace quelm
