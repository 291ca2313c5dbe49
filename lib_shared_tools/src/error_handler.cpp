#include "error_handler.h"

#include <exception>
#include <utility>

#include "function_trace.h"
#include "structured_exception.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\error_handler", "e6f19b04-8c2d-4a57-b3e8-1d7c5f0a9264",
             trace::kSharedTools);

namespace trace {
namespace {

using operating_system::CallForeign;

const wchar_t* OrNull(const wchar_t* text) {
    FUNCTION_TRACE();
    return text != nullptr ? text : L"(null)";
}

}  // namespace

ErrorHandler::ErrorHandler(std::wstring moduleName, std::wstring buildDate, std::wstring version,
                           std::shared_ptr<operating_system::MemoryDump> memoryDump,
                           std::shared_ptr<operating_system::SystemMessageBox> messageBox)
    : moduleName_(std::move(moduleName)),
      buildDate_(std::move(buildDate)),
      version_(std::move(version)),
      memoryDump_(std::move(memoryDump)),
      messageBox_(std::move(messageBox)) {
    FUNCTION_TRACE();
}

ErrorHandler::~ErrorHandler() {
    FUNCTION_TRACE();
}

void ErrorHandler::FatalError(const wchar_t* expression, const wchar_t* sourceFile, unsigned int line) {
    FUNCTION_TRACE();
    const NonRecursiveLock::Guard guard(lock_);
    if (!guard) return;
    try {
        const std::wstring body = CreateMessageBody(expression, sourceFile, line);
        const std::wstring caption = CreateCaption();
        constexpr DWORD kStyle = MB_ABORTRETRYIGNORE | MB_ICONHAND | MB_DEFBUTTON2 | MB_SYSTEMMODAL;
        static_assert(kStyle == 0x1112);
        ProcessUserFeedback(ShowBox(caption.c_str(), body, kStyle));
    } catch (const std::exception& error) {
        TRACE_ERROR(10, "The fatal error cannot be shown: %s", error.what());
    } catch (...) {
        TRACE_ERROR(11, "The fatal error cannot be shown");
    }
}

std::wstring ErrorHandler::CreateMessageBody(const wchar_t* expression, const wchar_t* sourceFile,
                                             unsigned int line) const {
    FUNCTION_TRACE();
    return L"ModulName: " + moduleName_ + L"\nBuild Date: " + buildDate_ + L"\nFile: " + OrNull(sourceFile) +
           L"\nLine: " + std::to_wstring(line) + L"\n\n" + OrNull(expression) +
           L"\n\nAbort:\tdebugger gets invoked.\nRetry:\tcreate a memory dump.\nIgnore:\tcontinue with "
           L"program.\n";
}

std::wstring ErrorHandler::CreateCaption() const {
    FUNCTION_TRACE();
    return L"Fatal Error: " + moduleName_ + L" !!!";
}

DWORD ErrorHandler::ShowBox(const wchar_t* caption, const std::wstring& body, DWORD style) {
    FUNCTION_TRACE();
    return CallForeign([&] { return messageBox_->Show(caption, body.c_str(), style); });
}

void ErrorHandler::ProcessUserFeedback(DWORD answer) {
    FUNCTION_TRACE();
    switch (answer) {
        case IDABORT:
            OnDebug();
            return;
        case IDRETRY:
            OnDump();
            return;
        case IDIGNORE:
            TRACE_ERROR(12, "The program goes on");
            return;
        default:
            TRACE_ERROR(13, "Unknown answer %u: the program goes on", answer);
            return;
    }
}

void ErrorHandler::OnDebug() {
    FUNCTION_TRACE();
    ::OutputDebugStringA("Try to trigger Debugger\n");
    TRACE_ERROR(14, "Calling the debugger");
    operating_system::BreakIntoDebugger();
}

void ErrorHandler::OnDump() {
    FUNCTION_TRACE();
    const bool ok = CallForeign([this] { return memoryDump_->Create(moduleName_); });
    const std::wstring path = memoryDump_->GetMemoryDumpAbsFileName();
    if (ok) {
        TRACE_INFO(15, "Dump %S", path);
        ShowBox(L"Wrote Memory dump.", path, MB_ICONINFORMATION);
        return;
    }
    TRACE_ERROR(16, "No dump %S", path);
    ShowBox(L"Wrote Memory dump Failed!", path, MB_ICONHAND);
    OnDebug();  // on purpose: whoever asked for a dump wants the error looked at
}

}  // namespace trace
