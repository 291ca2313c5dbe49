#include "test_process.h"

#include <algorithm>

#include "unique_handle.h"

namespace kitrun {
namespace {

constexpr DWORD kLongestEndMs = 10000;  // a process in a driver's hands ends late

/// A process and all that it starts, which end with it.
UniqueKernelHandle MakeJob() {
    UniqueKernelHandle job(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return job;
}

/// A file that processes inherit. Not a pipe: it needs nobody who reads, and whoever keeps it open holds
/// nobody up.
UniqueKernelHandle OpenInheritable(const std::wstring& path, DWORD disposition, DWORD flags) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    return UniqueKernelHandle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                            &inheritable, disposition, flags, nullptr));
}

std::wstring TemporaryFile() {
    wchar_t folder[MAX_PATH + 1] = {};
    wchar_t file[MAX_PATH + 1] = {};
    ::GetTempPathW(MAX_PATH, folder);
    ::GetTempFileNameW(folder, L"kit", 0, file);
    return file;
}

std::string Content(HANDLE file) {
    ::SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    std::string content;
    char buffer[16384];
    DWORD size = 0;
    while (::ReadFile(file, buffer, sizeof buffer, &size, nullptr) && size > 0)
        content.append(buffer, size);
    std::erase(content, '\r');
    return content;
}

/// A variable of this process, and of those that it starts, in its lifetime.
class Variable {
  public:
    explicit Variable(const std::string& setting)
        : name_(setting.begin(), std::find(setting.begin(), setting.end(), '=')) {
        if (name_.empty()) return;
        ::SetEnvironmentVariableA(name_.c_str(), setting.substr(name_.length() + 1).c_str());
    }
    ~Variable() {
        if (!name_.empty()) ::SetEnvironmentVariableA(name_.c_str(), nullptr);
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

  private:
    std::string name_;
};

bool HasLine(const std::string& output, const std::string& start) {
    return output.starts_with(start) || output.find("\n" + start) != std::string::npos;
}

}  // namespace

ProcessResult RunLimited(const std::wstring& commandLine, const std::wstring& folder, DWORD seconds,
                         const std::string& environment) {
    ProcessResult result;
    const Variable variable(environment);
    const UniqueKernelHandle job = MakeJob();
    const UniqueKernelHandle output =
        OpenInheritable(TemporaryFile(), CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE);
    const UniqueKernelHandle input = OpenInheritable(L"NUL", OPEN_EXISTING, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input.get();
    startup.hStdOutput = startup.hStdError = output.get();
    PROCESS_INFORMATION information = {};
    std::wstring line = commandLine;
    const ULONGLONG start = ::GetTickCount64();
    // A program that cannot be started, or crashes, is to say so by its end and not to whoever is there.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    // Not running before it is in the job, or what it starts at once would not be.
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                          folder.c_str(), &startup, &information)) {
        result.startError = ::GetLastError();
        return result;
    }
    const UniqueKernelHandle process(information.hProcess);
    const UniqueKernelHandle thread(information.hThread);
    if (!::AssignProcessToJobObject(job.get(), process.get())) result.startError = ::GetLastError();
    if (result.startError != 0)
        ::TerminateProcess(process.get(), ERROR_PROCESS_ABORTED);
    else
        ::ResumeThread(thread.get());
    result.timedOut = ::WaitForSingleObject(process.get(), seconds * 1000) != WAIT_OBJECT_0;
    result.milliseconds = static_cast<DWORD>(::GetTickCount64() - start);
    ::TerminateJobObject(job.get(), ERROR_TIMEOUT);
    ::WaitForSingleObject(process.get(), kLongestEndMs);
    ::GetExitCodeProcess(process.get(), &result.exitCode);
    result.output = Content(output.get());
    return result;
}

Verdict Judge(const ProcessResult& result) {
    if (result.timedOut) return Verdict::kTimedOut;
    if (result.startError != 0 || result.exitCode != 0) return Verdict::kFailed;
    const std::string passed = "[  PASSED  ] ";
    if (HasLine(result.output, passed) && !HasLine(result.output, passed + "0 ")) return Verdict::kPassed;
    return HasLine(result.output, "[  SKIPPED ] ") ? Verdict::kSkipped : Verdict::kFailed;
}

}  // namespace kitrun
