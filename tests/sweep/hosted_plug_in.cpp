#include "hosted_plug_in.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <process.h>
#include <utility>

#include "answered_calls.h"
#include "export_guard.h"
#include "import_hooks.h"
#include "program_folder.h"
#include "wine_gap_loader.h"

namespace sweep {
namespace {

std::mutex threadLock;  // guards the threads
std::vector<HANDLE> threads;

std::atomic<unsigned> waits = 0;

std::mutex boxLock;  // guards the boxes
std::vector<std::wstring> boxes;

BOOL WINAPI AnswerBox(HANDLE, DWORD, LPWSTR title, DWORD titleSize, LPWSTR message, DWORD messageSize, DWORD,
                      DWORD, DWORD* response, BOOL) {
    const std::lock_guard guard(boxLock);
    boxes.push_back(std::wstring(title, titleSize / sizeof(wchar_t)) + L"\n" +
                    std::wstring(message, messageSize / sizeof(wchar_t)));
    *response = IDIGNORE;
    return TRUE;
}

uintptr_t StartThread(void* security, unsigned stackSize, unsigned(__stdcall* start)(void*), void* argument,
                      unsigned flags, unsigned* id) {
    const uintptr_t thread = ::_beginthreadex(security, stackSize, start, argument, flags, id);
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), reinterpret_cast<HANDLE>(thread), ::GetCurrentProcess(), &copy,
                      SYNCHRONIZE, FALSE, 0);
    const std::lock_guard guard(threadLock);
    if (copy != nullptr) threads.push_back(copy);
    return thread;
}

DWORD WINAPI CountWait(HANDLE handle, DWORD milliseconds) {
    ++waits;
    return ::WaitForSingleObject(handle, milliseconds);
}

FARPROC WINAPI Resolve(HMODULE module, LPCSTR name) {
    if (std::strcmp(name, "WTSSendMessageW") == 0)
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&AnswerBox));
    return ::GetProcAddress(module, name);
}

void* Choose(const char* function, void* original) {
    const std::string name = function;
    if (name == "GetProcAddress") return reinterpret_cast<void*>(&Resolve);
    if (name == "RegisterDeviceNotificationW") return reinterpret_cast<void*>(&sweep::RegisterNotification);
    if (name == "UnregisterDeviceNotification")
        return reinterpret_cast<void*>(&sweep::UnregisterNotification);
    if (name == "_beginthreadex") return reinterpret_cast<void*>(&StartThread);
    if (name == "WaitForSingleObject") return reinterpret_cast<void*>(&CountWait);
    if (name == "Sleep") return reinterpret_cast<void*>(&sweep::SleepLess);
    return original;
}

DWORD WINAPI CallOnThread(void* call) {
    (*static_cast<const std::function<void()>*>(call))();
    return 0;
}

}  // namespace

void InTime(const std::function<void()>& call) {
    constexpr DWORD kLimitMs = 30000;
    const HANDLE thread =
        ::CreateThread(nullptr, 0, &CallOnThread, const_cast<std::function<void()>*>(&call), 0, nullptr);
    if (::WaitForSingleObject(thread, kLimitMs) != WAIT_OBJECT_0) {
        std::puts("a call does not come back");
        std::fflush(stdout);
        // Not by an orderly end, which would wait for a lock of the loader's that the call may hold.
        ::TerminateProcess(::GetCurrentProcess(), 1);
    }
    ::CloseHandle(thread);
}

HostedPlugIn::HostedPlugIn() {
    LoadWineGap();
    module_ = LoadWithImports(test_support::ProgramFolder() + L"tessaplug.dll", &Choose);
    Resolve(init, "tessaplug_init");
    Resolve(cleanup, "tessaplug_cleanup");
    Resolve(handler, "tessaplug_service_ctrl_handler");
}

HostedPlugIn::~HostedPlugIn() {
    if (module_ != nullptr) ::FreeLibrary(module_);
}

template <typename Function>
void HostedPlugIn::Resolve(Function*& pointer, const char* name) {
    pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
}

template <typename Call>
void HostedPlugIn::Guarded(Call call) {
    std::string exception;
    InTime([&] { exception = CallHost(call); });
    if (!exception.empty()) exceptions_.push_back(exception);
}

DWORD HostedPlugIn::Init(TESSAPLUG_STATUS_CALLBACK callback, void* context, DWORD apiVersion,
                         SERVICE_STATUS_HANDLE status) {
    DWORD result = MAXDWORD - 1;
    Guarded([&] { result = init(apiVersion, status, callback, context, 0); });
    return result;
}

void HostedPlugIn::Cleanup() {
    Guarded([this] { cleanup(); });
}

DWORD HostedPlugIn::Control(DWORD control, DWORD eventType, void* data) {
    DWORD result = MAXDWORD - 1;
    Guarded([&] { result = handler(control, eventType, data, nullptr); });
    return result;
}

DWORD HostedPlugIn::DeviceEvent(DWORD eventType, const GUID& model) {
    auto data = EventData(model);
    return Control(SERVICE_CONTROL_DEVICEEVENT, eventType, &data);
}

bool HostedPlugIn::Unload() {
    const HMODULE module = std::exchange(module_, nullptr);
    Guarded([module] { ::FreeLibrary(module); });
    return ::GetModuleHandleW(L"tessaplug.dll") == nullptr;
}

int HostedPlugIn::RunningThreads() {
    const std::lock_guard guard(threadLock);
    return static_cast<int>(std::ranges::count_if(
        threads, [](HANDLE thread) { return ::WaitForSingleObject(thread, 0) == WAIT_TIMEOUT; }));
}

unsigned HostedPlugIn::Waits() {
    return waits;
}

int HostedPlugIn::BoxesWith(const std::wstring& text) {
    const std::lock_guard guard(boxLock);
    return static_cast<int>(std::ranges::count_if(
        boxes, [&text](const std::wstring& box) { return box.find(text) != std::wstring::npos; }));
}

}  // namespace sweep
