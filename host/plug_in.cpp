#include "plug_in.h"

#include <cwchar>

#include "dll_loader_convenience.h"
#include "structured_exception.h"
#include "system_error.h"
#include "toolbox.h"

namespace host {
namespace {

[[noreturn]] void Raised(const std::wstring& path, const wchar_t* exportName, const std::wstring& what) {
    throw PlugInError(L"The plug-in " + path + L" let " + what + L" out of " + exportName,
                      ERROR_EXCEPTION_IN_SERVICE);
}

/// Calls an export; whatever comes out of it comes out as a PlugInError.
template <typename Call>
auto CallExport(const std::wstring& path, const wchar_t* exportName, Call call) {
    try {
        // A break that a user has asked for in the plug-in's assertion box is his: it calls the debugger.
        return operating_system::CallForeign(call, operating_system::Breakpoints::kPass);
    } catch (const operating_system::ForeignException& exception) {
        wchar_t code[40] = {};
        std::swprintf(code, ARRAYSIZE(code), L"the exception 0x%08lX", exception.code);
        Raised(path, exportName, code);
    } catch (const std::exception& exception) {
        Raised(path, exportName, L"a C++ exception (" + toolbox::Widened(exception.what()) + L")");
    } catch (...) {
        Raised(path, exportName, L"a C++ exception");
    }
}

}  // namespace

PlugInError::PlugInError(const std::wstring& text, DWORD code)
    : std::runtime_error(toolbox::WstringToString(text)), text_(text), code_(code) {}

PlugIn::PlugIn(const std::wstring& path)
    : path_(path),
      module_(::LoadLibraryExW(path.c_str(), nullptr,
                               LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32)) {
    using operating_system::CheckAndInitFunctionPointer;
    if (!module_) {
        const DWORD code = ::GetLastError();
        throw PlugInError(L"The plug-in " + path + L" cannot be loaded: " +
                              operating_system::DescribeSystemError(code, L"it") +
                              L". Check the path that the service was installed with.",
                          code);
    }
    const char* name = nullptr;
    try {
        CheckAndInitFunctionPointer(module_.get(), init_, name = "tessaplug_init");
        CheckAndInitFunctionPointer(module_.get(), cleanup_, name = "tessaplug_cleanup");
        CheckAndInitFunctionPointer(module_.get(), serviceCtrlHandler_,
                                    name = "tessaplug_service_ctrl_handler");
    } catch (const std::exception&) {
        throw PlugInError(path + L" is no plug-in of this host: it does not export " + toolbox::Widened(name),
                          ERROR_PROC_NOT_FOUND);
    }
}

DWORD PlugIn::Init(SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback,
                   void* hostContext) {
    return CallExport(path_, L"tessaplug_init",
                      [&] { return init_(TESSAPLUG_API_VERSION, statusHandle, callback, hostContext, 0); });
}

void PlugIn::Cleanup() {
    CallExport(path_, L"tessaplug_cleanup", cleanup_);
}

DWORD PlugIn::ServiceCtrlHandler(DWORD control, DWORD eventType, void* eventData) {
    return CallExport(path_, L"tessaplug_service_ctrl_handler",
                      [&] { return serviceCtrlHandler_(control, eventType, eventData, nullptr); });
}

}  // namespace host
