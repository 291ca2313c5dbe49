#include "modul_sysadjust.h"

#include <exception>
#include <memory>
#include <string>

#include "build_info.h"
#include "error_handler.h"
#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"
#include "win_convenience.h"

TRACE_SOURCE("tessaplug_lib\\src\\modul_sysadjust", "d1b7f3a9-2c5e-4a08-b6d4-7e9f0c1a5b13", trace::kModule);

namespace tessaplug {
namespace {

constexpr wchar_t kProviderName[] = L"tessaplug";
constexpr wchar_t kModuleName[] = L"tessaplug.dll";
constexpr wchar_t kBuildDate[] = L"" TESSA_BUILD_DATE;
constexpr wchar_t kVersion[] = L"" TESSA_VERSION_TEXT;

std::unique_ptr<trace::ErrorHandler> errorHandler;

std::shared_ptr<logger::EventLogProvider> eventLogProvider;

const wchar_t* OrNull(const wchar_t* text) {
    FUNCTION_TRACE();
    return text != nullptr ? text : L"(null)";
}

/// A text that cannot be narrowed costs the trace, not the report.
void TraceAssertion(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    FUNCTION_TRACE();
    try {
        TRACE_ERROR(10, "%s(%u): assertion failed: %s", toolbox::WstringToString(sourcePath), line,
                    toolbox::WstringToString(expression));
    } catch (const std::exception& error) {
        TRACE_ERROR(15, "An assertion in line %u cannot be traced: %s", line, error.what());
    }
}

/// What becomes of a failed assertion beyond its trace.
void ReportFatalError(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    FUNCTION_TRACE();
    const std::wstring text = std::wstring(L"tessaplug: assertion failed: ") + expression + L", " +
                              sourcePath + L"(" + std::to_wstring(line) + L")\n";
    ::OutputDebugStringW(text.c_str());
    if (errorHandler != nullptr) errorHandler->FatalError(expression, sourcePath, line);
}

}  // namespace

void CreateErrorHandler() {
    FUNCTION_TRACE();
    if (errorHandler != nullptr) return;
    try {
        errorHandler = std::make_unique<trace::ErrorHandler>(kModuleName, kBuildDate, kVersion);
    } catch (const std::exception& error) {
        TRACE_ERROR(14, "No fatal-error handler: %s", error.what());
    }
}

void DeleteErrorHandler() {
    FUNCTION_TRACE();
    errorHandler.reset();
}

void CreateEventLogProvider(HMODULE module) {
    FUNCTION_TRACE();
    if (eventLogProvider != nullptr) return;
    try {
        eventLogProvider = std::make_shared<logger::EventLogProvider>(
            kProviderName, windows_api::GetModuleFileNameW(module));
        eventLogProvider->Register();
    } catch (const std::exception& error) {
        TRACE_ERROR(13, "No event log provider: %s", error.what());
    }
}

void DeleteEventLogProvider() {
    FUNCTION_TRACE();
    eventLogProvider.reset();
}

}  // namespace tessaplug

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    FUNCTION_TRACE();
    const wchar_t* expressionText = tessaplug::OrNull(expression);
    const wchar_t* pathText = tessaplug::OrNull(sourcePath);
    tessaplug::TraceAssertion(expressionText, pathText, line);
    try {
        tessaplug::ReportFatalError(expressionText, pathText, line);
    } catch (...) {
        ::OutputDebugStringW(L"tessaplug: an assertion failed and could not be reported\n");
    }
}

void _ModulSysLog_00(unsigned int eventType, unsigned int eventId) {
    FUNCTION_TRACE();
    TRACE_INFO(11, "Event log entry: type %u, identifier 0x%x", eventType, eventId);
    try {
        logger::EventLogWriter(tessaplug::eventLogProvider).Log(eventType, eventId);
    } catch (const std::exception& error) {
        TRACE_ERROR(12, "Event log entry failed: %s", error.what());
    }
}
