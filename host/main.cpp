#include <clocale>
#include <cstdio>
#include <exception>

#include "command_line.h"
#include "exception_history.h"
#include "library_search.h"
#include "output.h"
#include "service_control.h"

int wmain(int argc, wchar_t** argv) {
    operating_system::LimitLibrarySearch();
    std::setlocale(LC_CTYPE, "");  // so that names and paths are printed whole
    modul_exception::InitializeExceptionHistory();
    host::ExitCode result = host::ExitCode::kFailed;
    try {
        host::ServiceControl handlers;
        result = host::RunCommandLine({argv + 1, argv + argc}, handlers);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessahost: %s\n", error.what());
    }
    return command_line::FinishOutput("tessahost", static_cast<int>(result));
}
