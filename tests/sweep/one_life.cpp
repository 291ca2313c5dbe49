#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <dbghelp.h>
#include <string>
#include <vector>

#include "answered_calls.h"
#include "event_log_file.h"
#include "export_guard.h"
#include "fault_injection.h"
#include "program_folder.h"
#include "scripted_station.h"
#include "tessaplug.h"
#include "wine_gap_loader.h"

// One life of the built plug-in: started, two adapters that arrive and leave, a driver's error that is shown,
// an assertion that is answered with a dump, stopped, unloaded. With arguments FUNCTION NUMBER the number-th
// call of a function fails; a third argument shows what the boxes say. Prints what went wrong, and without
// arguments how often each function was called.
//
// Ends with 0 if nothing went wrong, 1 if something did, 2 if the fault did not happen; with 3 after an
// exception that nobody handled, and with 4 if it has not ended in time.
namespace {

using sweep::CallHost;

enum ExitCode : UINT { kClean = 0, kProblems = 1, kNotReached = 2, kCrashed = 3, kHung = 4 };

constexpr GUID kNx4120 = {0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};
constexpr GUID kFennlinkU3 = {0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}};
constexpr DWORD kLimitMs = 25000;

std::atomic<const char*> step = "load";
std::vector<std::string> problems;  // of the host's thread
std::atomic<int> driverBoxes = 0;
bool showsBoxes = false;

void Problem(const std::string& text) {
    problems.push_back(std::string(step) + ": " + text);
}

// What is spared: a user, the writing of 100 MB, a program to be started, and most of the waiting.

BOOL WINAPI AnswerBox(HANDLE, DWORD, LPWSTR title, DWORD, LPWSTR message, DWORD size, DWORD style, DWORD,
                      DWORD* response, BOOL) {
    if (std::wstring(title) == L"fenlu3") ++driverBoxes;
    if (showsBoxes) std::printf("%s: box \"%ls\"\n", step.load(), std::wstring(message, size / 2).c_str());
    *response = (style & MB_TYPEMASK) == MB_ABORTRETRYIGNORE ? IDRETRY : IDOK;
    return TRUE;
}

BOOL WINAPI WriteSmallDump(HANDLE, DWORD, HANDLE file, MINIDUMP_TYPE, MINIDUMP_EXCEPTION_INFORMATION*,
                           MINIDUMP_USER_STREAM_INFORMATION*, MINIDUMP_CALLBACK_INFORMATION*) {
    DWORD written = 0;
    return ::WriteFile(file, "MDMP", 4, &written, nullptr);
}

BOOL WINAPI StartNothing(LPCWSTR, LPWSTR, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD, void*,
                         LPCWSTR, STARTUPINFOW*, PROCESS_INFORMATION* process) {
    process->hProcess = ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
    process->hThread = ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
    sweep::KeepAccountOfHandle(process->hProcess, "CreateProcessW, process");
    sweep::KeepAccountOfHandle(process->hThread, "CreateProcessW, thread");
    return TRUE;
}

/// The driver's file beside this program in place of the installed one.
HMODULE WINAPI LoadDriverFile(LPCWSTR name, HANDLE file, DWORD flags) {
    const std::wstring path = name;
    const std::wstring ours = test_support::ProgramFolder() + L"fenlu3.sys";
    return ::LoadLibraryExW(path.ends_with(L"\\fenlu3.sys") ? ours.c_str() : name, file, flags);
}

[[noreturn]] void End(UINT code) {
    std::fflush(stdout);
    ::TerminateProcess(::GetCurrentProcess(), code);
    for (;;)
        ::Sleep(INFINITE);
}

/// What the C++ run time calls when an exception finds nobody.
void ReportAbort() {
    void* frames[32] = {};
    const auto* base = reinterpret_cast<const char*>(::GetModuleHandleW(L"tessaplug.dll"));
    const WORD count = ::RtlCaptureStackBackTrace(0, ARRAYSIZE(frames), frames, nullptr);
    std::printf("%s: aborted at tessaplug.dll +", step.load());
    for (WORD i = 0; i < count; ++i)
        std::printf(" 0x%llx", static_cast<unsigned long long>(static_cast<const char*>(frames[i]) - base));
    std::printf("\n");
    End(kCrashed);
}

template <typename Function>
void* Address(Function* function) {
    return reinterpret_cast<void*>(function);
}

const sweep::Replacements kReplacements = {
    {"WTSSendMessageW", Address(&AnswerBox)},
    {"MiniDumpWriteDump", Address(&WriteSmallDump)},
    {"CreateProcessW", Address(&StartNothing)},
    {"RegisterDeviceNotificationW", Address(&sweep::RegisterNotification)},
    {"UnregisterDeviceNotification", Address(&sweep::UnregisterNotification)},
    {"Sleep", Address(&sweep::SleepLess)},
    {"LoadLibraryExW", Address(&LoadDriverFile)},
    {"abort", Address(&ReportAbort)},
};

/// Sees that the states are reported in order.
struct Host {
    DWORD reports = 0;
    bool mayReport = true;

    static void WINAPI OnStatus(void* context, SERVICE_STATUS* status) {
        if (context == nullptr) {
            Problem("a report without the host's context");
            return;
        }
        Host& host = *static_cast<Host*>(context);
        ++host.reports;
        if (!host.mayReport) Problem("a report after the start");
        if (status->dwCurrentState != SERVICE_START_PENDING)
            Problem("state " + std::to_string(status->dwCurrentState));
        if (status->dwCheckPoint != host.reports + 1)
            Problem("check point " + std::to_string(status->dwCheckPoint) + " in report " +
                    std::to_string(host.reports));
    }
};

struct PlugIn {
    HMODULE module = nullptr;
    decltype(&::tessaplug_init) init = nullptr;
    decltype(&::tessaplug_cleanup) cleanup = nullptr;
    decltype(&::tessaplug_service_ctrl_handler) handler = nullptr;

    template <typename Function>
    void Resolve(Function*& pointer, const char* name) const {
        pointer = reinterpret_cast<Function*>(Address(::GetProcAddress(module, name)));
    }
};

template <typename Call>
void Guarded(Call call) {
    const std::string exception = CallHost(call);
    if (!exception.empty()) Problem(exception + " came out");
}

void DeviceEvent(const PlugIn& plugIn, DWORD eventType, const GUID& model) {
    constexpr DWORD kQuietLimitMs = 1000;
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = model;
    const unsigned waits = sweep::LongWaits();
    DWORD result = 0;
    Guarded([&] { result = plugIn.handler(SERVICE_CONTROL_DEVICEEVENT, eventType, &data, nullptr); });
    if (result != NO_ERROR && result != MAXDWORD) Problem("result " + std::to_string(result));
    sweep::WaitUntilIdle(waits, kQuietLimitMs);
}

void DriverError() {
    constexpr DWORD kFenlu3Error = 0xC0040103;
    const unsigned waits = sweep::LongWaits();
    wine_gap::Event event;
    event.source = L"fenlu3";
    event.type = EVENTLOG_ERROR_TYPE;
    event.id = kFenlu3Error;
    event.strings = {L"\\Device\\TessaAdapterFenlu3", L"no bus voltage"};
    wine_gap::EventLogFile(L"System").Append({event});
    sweep::WaitUntilIdle(waits, 300);
}

void Start(const PlugIn& plugIn, Host& host) {
    step = "init";
    DWORD started = 2;
    Guarded([&] {
        started = plugIn.init(TESSAPLUG_API_VERSION, reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51),
                              &Host::OnStatus, &host, 0);
    });
    if (started > 1) Problem("result " + std::to_string(started));
    if (started == 1 && host.reports != 5) Problem(std::to_string(host.reports) + " reports of a start");
    host.mayReport = false;
    sweep::WaitUntilIdle(1, started == 1 ? 1000 : 0);
}

void Run(const PlugIn& plugIn) {
    step = "arrival of NX4120";
    DeviceEvent(plugIn, DBT_DEVICEARRIVAL, kNx4120);
    step = "arrival of Fennlink U3";
    DeviceEvent(plugIn, DBT_DEVICEARRIVAL, kFennlinkU3);
    step = "removal of NX4120";
    DeviceEvent(plugIn, DBT_DEVICEREMOVECOMPLETE, kNx4120);
    step = "driver error";
    DriverError();
    step = "assertion";
    Guarded([&] { plugIn.handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, nullptr, nullptr); });
}

void Stop(const PlugIn& plugIn) {
    step = "cleanup";
    Guarded([&] { plugIn.cleanup(); });
    step = "unload";
    Guarded([&] { ::FreeLibrary(plugIn.module); });
    if (::GetModuleHandleW(L"tessaplug.dll") != nullptr) Problem("the library is still loaded");
    if (const int running = sweep::RunningThreads(1000)) Problem(std::to_string(running) + " threads run");
    for (const std::string& origin : sweep::LeftBehind())
        Problem("left behind: what came from " + origin);
}

void Live(const sweep::Fault& fault) {
    PlugIn plugIn;
    const std::wstring path = test_support::ProgramFolder() + L"tessaplug.dll";
    Guarded([&] { plugIn.module = sweep::LoadUnderControl(path, fault, kReplacements); });
    if (plugIn.module == nullptr) {
        // A library that finds no memory while it is attached may refuse to be loaded.
        if (!sweep::FaultHappened()) Problem("not loaded, error " + std::to_string(::GetLastError()));
        return;
    }
    plugIn.Resolve(plugIn.init, "tessaplug_init");
    plugIn.Resolve(plugIn.cleanup, "tessaplug_cleanup");
    plugIn.Resolve(plugIn.handler, "tessaplug_service_ctrl_handler");
    Host host;
    Start(plugIn, host);
    Run(plugIn);
    Stop(plugIn);
}

LONG CALLBACK ReportCrash(EXCEPTION_POINTERS* exception) {
    std::printf("%s: %s ended the process\n", step.load(),
                sweep::Describe(*exception->ExceptionRecord).c_str());
    End(kCrashed);
}

DWORD WINAPI WatchTime(void*) {
    ::Sleep(kLimitMs);
    std::printf("%s: not over after %lu ms\n", step.load(), kLimitMs);
    End(kHung);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    LoadWineGap();
    ::SetUnhandledExceptionFilter(&ReportCrash);
    sweep::LetBreakpointsGoOn();
    ::CloseHandle(::CreateThread(nullptr, 0, &WatchTime, nullptr, 0, nullptr));
    sweep::Fault fault;
    showsBoxes = argc == 4;
    if (argc >= 3) {
        const std::wstring name = argv[1];
        fault = {std::string(name.begin(), name.end()),
                 static_cast<unsigned>(std::wcstoul(argv[2], nullptr, 10))};
    }
    test_support::ScriptedStation station;
    station.Add(1, "PC Station");
    station.Add(7, "NX4120");
    Live(fault);
    for (const std::string& problem : problems)
        std::printf("%s\n", problem.c_str());
    if (fault.number == 0) {
        for (const auto& [function, count] : sweep::CallCounts())
            std::printf("calls %s %u\n", function.c_str(), count);
        for (const std::string& function : sweep::UnknownFunctions())
            std::printf("unknown %s\n", function.c_str());
        std::printf("boxes %d stops %zu\n", driverBoxes.load(), station.journal.size());
    }
    if (!problems.empty()) End(kProblems);
    End(fault.number == 0 || sweep::FaultHappened() ? kClean : kNotReached);
}
