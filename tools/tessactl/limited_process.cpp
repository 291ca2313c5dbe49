#include "limited_process.h"

#include <algorithm>

#include "text.h"
#include "unique_handle.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

struct Pipe {
    UniqueKernelHandle read;
    UniqueKernelHandle write;
};

/// A pipe whose writing end a new process inherits.
Pipe MakePipe() {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!::CreatePipe(&read, &write, &inheritable, 0) ||
        !::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0))
        throw ToolError("no pipe can be made: " + ErrorInWords(::GetLastError()));
    return {UniqueKernelHandle(read), UniqueKernelHandle(write)};
}

UniqueKernelHandle Start(const std::wstring& arguments, HANDLE output, HANDLE errors) {
    const std::wstring self = windows_api::GetModuleFileNameW(nullptr);
    std::wstring line = L"\"" + self + L"\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = errors;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(self.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                          &process)) {
        const DWORD error = ::GetLastError();
        throw ToolError(Utf8(self) + " cannot be started: " + ErrorInWords(error));
    }
    ::CloseHandle(process.hThread);
    return UniqueKernelHandle(process.hProcess);
}

/// Takes what is in the pipe without waiting for more: whoever inherited its other end may keep it open for
/// ever.
void TakeOutput(HANDLE pipe, std::string& output) {
    char buffer[4096];
    DWORD available = 0;
    while (output.size() < kMostOutput && ::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) &&
           available > 0) {
        DWORD read = 0;
        if (!::ReadFile(pipe, buffer, std::min<DWORD>(available, sizeof buffer), &read, nullptr)) return;
        output.append(buffer, read);
    }
}

}  // namespace

std::wstring Quoted(const std::wstring& argument) {
    std::wstring quoted = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : argument) {
        // Only before a quotation mark does a backslash have to be told from one that escapes it.
        if (c == L'"') quoted.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, L'\\') + L"\"";
}

LimitedResult RunThisProgram(const std::wstring& arguments, std::chrono::milliseconds limit) {
    constexpr DWORD kStepMs = 20;          // how long a full pipe may hold the process up
    constexpr DWORD kLongestEndMs = 5000;  // a process in a driver's hands ends late
    Pipe output = MakePipe();
    Pipe errors = MakePipe();
    const UniqueKernelHandle process = Start(arguments, output.write.get(), errors.write.get());
    output.write.reset();
    errors.write.reset();
    LimitedResult result;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!result.ended && std::chrono::steady_clock::now() < deadline) {
        result.ended = ::WaitForSingleObject(process.get(), kStepMs) == WAIT_OBJECT_0;
        TakeOutput(output.read.get(), result.output);
        TakeOutput(errors.read.get(), result.errors);
    }
    if (result.ended) {
        ::GetExitCodeProcess(process.get(), &result.exitCode);
    } else {
        ::TerminateProcess(process.get(), ERROR_TIMEOUT);
        ::WaitForSingleObject(process.get(), kLongestEndMs);
    }
    return result;
}

}  // namespace tessactl
