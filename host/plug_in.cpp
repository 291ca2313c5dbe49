#include "plug_in.h"

#include "dll_loader_convenience.h"
#include "toolbox.h"
#include "windows_api_excp.h"

namespace host {

void LimitLibrarySearch() {
    ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    ::SetDllDirectoryW(L"");
}

PlugIn::PlugIn(const std::wstring& path)
    : module_(::LoadLibraryExW(path.c_str(), nullptr,
                               LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32)) {
    using operating_system::CheckAndInitFunctionPointer;
    if (!module_) {
        const DWORD code = ::GetLastError();
        throw PlugInError("The plug-in " + toolbox::WstringToString(path) +
                              " cannot be loaded: " + modul_exception::GetSystemErrorText(code) +
                              " Check the path that the service was installed with.",
                          code);
    }
    try {
        CheckAndInitFunctionPointer(module_.get(), init, "tessaplug_init");
        CheckAndInitFunctionPointer(module_.get(), cleanup, "tessaplug_cleanup");
        CheckAndInitFunctionPointer(module_.get(), serviceCtrlHandler, "tessaplug_service_ctrl_handler");
    } catch (const std::exception& error) {
        throw PlugInError(toolbox::WstringToString(path) + " is no plug-in of this host: " + error.what(),
                          ERROR_PROC_NOT_FOUND);
    }
}

}  // namespace host
