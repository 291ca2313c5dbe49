#include "fault_injection.h"

#include <algorithm>
#include <atomic>
#include <cwchar>

#include "call_gate.h"
#include "import_hooks.h"
#include "ledger.h"
#include "system_calls.h"

namespace sweep {
namespace {

constexpr wchar_t kInstanceLock[] = L"TESSAPLUG_INSTANCE_LOCK__";
constexpr char kInstanceLockOrigin[] = "the instance lock";

/// A function that goes through a gate.
struct Site {
    std::string name;
    const SystemCall* call = nullptr;
    std::atomic<void*> original = nullptr;
    std::atomic<void*> target = nullptr;  // the original or what replaces it
    std::atomic<unsigned> count = 0;
};

Site sites[kGates];
DWORD siteCount = 0;
SRWLOCK siteLock = SRWLOCK_INIT;  // guards the making of sites

Ledger ledger;
Fault plannedFault;
Replacements replacedFunctions;
std::vector<std::string> unknown;
std::atomic<bool> faultHappened = false;

DWORD hostThread = 0;
std::atomic<unsigned> longWaits = 0;
std::atomic<int> waiting = 0;
std::vector<HANDLE> threads;
SRWLOCK threadLock = SRWLOCK_INIT;  // guards the threads

void* ReplacementOf(const char* name, void* original) {
    const auto found = replacedFunctions.find(name);
    return found != replacedFunctions.end() ? found->second : original;
}

/// The gate in front of a function; the function itself if it cannot fail.
void* GateTo(const char* name, void* original) {
    const SystemCall* call = FindSystemCall(name);
    if (call == nullptr) return ReplacementOf(name, original);
    ::AcquireSRWLockExclusive(&siteLock);
    DWORD gate = 0;
    while (gate < siteCount && sites[gate].name != name)
        ++gate;
    Site& site = sites[gate];
    if (gate == siteCount && siteCount < kGates) {
        site.name = name;
        site.call = call;
        ++siteCount;
    }
    site.original = original;
    site.target = ReplacementOf(name, original);
    ::ReleaseSRWLockExclusive(&siteLock);
    return GateAddress(gate);
}

void KeepThread(HANDLE thread) {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), thread, ::GetCurrentProcess(), &copy, SYNCHRONIZE, FALSE, 0);
    ::AcquireSRWLockExclusive(&threadLock);
    threads.push_back(copy);
    ::ReleaseSRWLockExclusive(&threadLock);
}

/// The plug-in itself does not call these.
bool IsMadeByTheRunTime(const std::string& origin) {
    for (const char* name : {"CreateSemaphoreA", "CreateEventA", "DuplicateHandle"})
        if (origin.starts_with(name)) return true;
    return false;
}

/// What the C++ run time waits for and signals it has made itself: that cannot fail.
bool IsTheRunTimesOwn(HANDLE handle) {
    const std::string origin = ledger.OriginOf(Resource::kHandle, reinterpret_cast<ULONG_PTR>(handle));
    return origin.starts_with("_beginthreadex") || IsMadeByTheRunTime(origin);
}

std::string OriginOf(const Site& site, unsigned number, const ULONG_PTR* arguments) {
    const auto* mutexName = reinterpret_cast<const wchar_t*>(site.name == "CreateMutexW" ? arguments[2] : 0);
    if (mutexName != nullptr && std::wcsstr(mutexName, kInstanceLock) != nullptr) return kInstanceLockOrigin;
    return site.name + " " + std::to_string(number);
}

void KeepAccount(const Site& site, unsigned number, const ULONG_PTR* arguments, ULONG_PTR result) {
    const SystemCall& call = *site.call;
    if (call.resource == Resource::kNone || !call.HasSucceeded(result)) return;
    if (call.releases != kNothing) {
        ledger.Release(call.resource, arguments[call.releases]);
        return;
    }
    constexpr DWORD kAllocates = FORMAT_MESSAGE_ALLOCATE_BUFFER;
    if (site.name.starts_with("FormatMessage") && (arguments[0] & kAllocates) == 0) return;
    const ULONG_PTR value =
        call.acquires == kResult ? result : *reinterpret_cast<const ULONG_PTR*>(arguments[call.acquires]);
    ledger.Acquire(call.resource, value, OriginOf(site, number, arguments));
    if (site.name == "_beginthreadex") KeepThread(reinterpret_cast<HANDLE>(value));
}

bool IsLongWait(const Site& site, const ULONG_PTR* arguments) {
    constexpr DWORD kLong = 1000;
    if (::GetCurrentThreadId() == hostThread || site.call->failure != Failure::kWait) return false;
    return static_cast<DWORD>(arguments[site.name == "WaitForSingleObject" ? 1 : 3]) > kLong;
}

ULONG_PTR CallThrough(const Site& site, const ULONG_PTR* arguments, DWORD lastError) {
    const bool isLongWait = IsLongWait(site, arguments);
    if (isLongWait) {
        ++waiting;
        ++longWaits;
    }
    ::SetLastError(lastError);
    const ULONG_PTR result = Pass(site.target, arguments);
    if (isLongWait) --waiting;
    return result;
}

ULONG_PTR Fail(Site& site, const ULONG_PTR* arguments) {
    // What is released is gone, whatever the call says: nobody could release it again.
    if (site.call->releases != kNothing) {
        Pass(site.target, arguments);
        ledger.Release(site.call->resource, arguments[site.call->releases]);
    }
    faultHappened = true;
    if (site.call->error != 0) ::SetLastError(site.call->error);
    return site.call->FailureValue(arguments[0]);
}

ULONG_PTR KeepGate(DWORD gate, ULONG_PTR* arguments) {
    const DWORD lastError = ::GetLastError();
    Site& site = sites[gate];
    const bool isOfAHandle = site.name == "WaitForSingleObject" || site.name == "SetEvent";
    const bool counts = !isOfAHandle || !IsTheRunTimesOwn(reinterpret_cast<HANDLE>(arguments[0]));
    const unsigned number = counts ? ++site.count : 0;
    if (number != 0 && number == plannedFault.number && site.name == plannedFault.function)
        return Fail(site, arguments);
    ULONG_PTR result = CallThrough(site, arguments, lastError);
    const DWORD error = ::GetLastError();
    KeepAccount(site, number, arguments, result);
    const auto* function = reinterpret_cast<const char*>(arguments[1]);
    if (site.name == "GetProcAddress" && result != 0)
        result = reinterpret_cast<ULONG_PTR>(GateTo(function, reinterpret_cast<void*>(result)));
    ::SetLastError(error);
    return result;
}

}  // namespace

HMODULE LoadUnderControl(const std::wstring& path, const Fault& fault, const Replacements& replacements) {
    plannedFault = fault;
    replacedFunctions = replacements;
    hostThread = ::GetCurrentThreadId();
    SetGateKeeper(&KeepGate);
    return LoadWithImports(path, [](const char* function, void* original) {
        if (FindSystemCall(function) == nullptr && !CannotFail(function)) unknown.push_back(function);
        return GateTo(function, original);
    });
}

bool FaultHappened() {
    return faultHappened;
}

std::map<std::string, unsigned> CallCounts() {
    std::map<std::string, unsigned> counts;
    for (DWORD gate = 0; gate < siteCount; ++gate)
        if (sites[gate].count > 0 && sites[gate].call->failure != Failure::kNever)
            counts[sites[gate].name] = sites[gate].count;
    return counts;
}

std::vector<std::string> UnknownFunctions() {
    return unknown;
}

std::vector<std::string> LeftBehind() {
    // The run time keeps an event and a handle for the host's thread, whose end it does not see, two
    // semaphores for its lock over thread locals, and an event for each of its locks that two threads ever
    // wanted at once.
    constexpr std::ptrdiff_t kRunTimesOwn = 8;
    auto left = ledger.Left();
    std::erase(left, kInstanceLockOrigin);
    if (std::ranges::count_if(left, &IsMadeByTheRunTime) <= kRunTimesOwn)
        std::erase_if(left, &IsMadeByTheRunTime);
    return left;
}

void KeepAccountOfHandle(HANDLE handle, const std::string& origin) {
    ledger.Acquire(Resource::kHandle, reinterpret_cast<ULONG_PTR>(handle), origin);
}

unsigned LongWaits() {
    return longWaits;
}

int RunningThreads(DWORD timeout) {
    ::AcquireSRWLockExclusive(&threadLock);
    const auto running = std::ranges::count_if(
        threads, [timeout](HANDLE thread) { return ::WaitForSingleObject(thread, timeout) == WAIT_TIMEOUT; });
    ::ReleaseSRWLockExclusive(&threadLock);
    return static_cast<int>(running);
}

void WaitUntilIdle(unsigned longWaitsBefore, DWORD timeout) {
    const ULONGLONG deadline = ::GetTickCount64() + timeout;
    const auto isIdle = [&] { return longWaits > longWaitsBefore && waiting >= RunningThreads(0); };
    while (!isIdle() && RunningThreads(0) > 0 && ::GetTickCount64() < deadline)
        ::Sleep(1);
}

ULONG_PTR CallOriginal(const std::string& function, const ULONG_PTR* arguments) {
    for (DWORD gate = 0; gate < siteCount; ++gate)
        if (sites[gate].name == function) return Pass(sites[gate].original, arguments);
    return 0;
}

}  // namespace sweep
