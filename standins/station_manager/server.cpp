#include "server.h"

// The identifiers of the generated header get their values here.
#include <initguid.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "component_store.h"
#include "station_manager.h"

namespace station_manager {
namespace {

constexpr DWORD kIdleTimeoutMs = 8000;
constexpr DWORD kLastAnswerMs = 100;
constexpr wchar_t kHangs[] = L"hang-in-getdata";  // until it is told something else
constexpr wchar_t kClassKey[] = L"SOFTWARE\\Classes\\CLSID\\{A1BFDF31-F4D2-11D3-9140-00105AAFF783}";

HANDLE unused = nullptr;  // signalled when the last client is gone
std::atomic<ULONGLONG> lastCall;

void NoteCall() {
    lastCall = ::GetTickCount64();
}

void AddServerReference() {
    NoteCall();
    ::CoAddRefServerProcess();
}

void ReleaseServerReference() {
    if (::CoReleaseServerProcess() == 0) ::SetEvent(unused);
}

/// HRESULT_FROM_WIN32 may be a macro that evaluates its argument twice.
HRESULT Result(LSTATUS code) {
    return HRESULT_FROM_WIN32(code);
}

[[noreturn]] void Die() {
    ::ExitProcess(3);
}

/// The station object. All of them share what the store holds.
class Station final : public ISetupSupport, public IComponentControl, public IDiagnostics {
  public:
    Station() { AddServerReference(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        NoteCall();
        if (IsEqualIID(iid, __uuidof(IUnknown)) || IsEqualIID(iid, __uuidof(ISetupSupport)))
            *object = static_cast<ISetupSupport*>(this);
        else if (IsEqualIID(iid, __uuidof(IComponentControl)))
            *object = static_cast<IComponentControl*>(this);
        else if (IsEqualIID(iid, __uuidof(IDiagnostics)))
            *object = static_cast<IDiagnostics*>(this);
        else
            *object = nullptr;
        if (*object == nullptr) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --references_;
        if (left == 0) delete this;
        return left;
    }

    HRESULT STDMETHODCALLTYPE GetData(LONG kind, VARIANT* data) override {
        NoteCall();
        while (store_.Fault() == kHangs) {
            NoteCall();
            ::Sleep(20);
        }
        const std::wstring fault = store_.Fault();
        if (fault == L"exit-in-getdata") Die();
        ::VariantInit(data);
        if (kind != STATION_CONFIG_DATA) return E_INVALIDARG;
        const auto components = store_.Components();
        const std::size_t size = components.size() * sizeof(Component);
        const std::size_t surplus = fault == L"odd-length" ? 7 : 0;
        SAFEARRAY* bytes = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(size + surplus));
        if (bytes == nullptr) return E_OUTOFMEMORY;
        if (size > 0) std::memcpy(bytes->pvData, components.data(), size);
        data->vt = VT_ARRAY | VT_UI1;
        data->parray = bytes;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE StopComponent(LONG virtualDevice, LONG /*reserved*/) override {
        NoteCall();
        const std::wstring fault = store_.Fault();
        if (fault == L"exit-in-stop") Die();
        if (fault == L"refuse-" + std::to_wstring(virtualDevice)) return E_ACCESSDENIED;
        return Result(store_.SetStatus(virtualDevice, kStopped));
    }
    HRESULT STDMETHODCALLTYPE StartComponent(LONG virtualDevice, LONG /*reserved*/) override {
        NoteCall();
        return Result(store_.SetStatus(virtualDevice, kRunning));
    }
    HRESULT STDMETHODCALLTYPE AddEntry(BYTE area, USHORT code, USHORT value, ULONG detail) override {
        NoteCall();
        return Result(store_.AddDiagnostic(area, code, value, detail));
    }

  private:
    ~Station() { ReleaseServerReference(); }

    std::atomic<ULONG> references_ = 1;
    ComponentStore store_;
};

/// Lives as long as the program.
class StationFactory final : public IClassFactory {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        const bool known = IsEqualIID(iid, __uuidof(IUnknown)) || IsEqualIID(iid, __uuidof(IClassFactory));
        *object = known ? this : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
        *object = nullptr;
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        auto* station = new Station();
        const HRESULT result = station->QueryInterface(iid, object);
        station->Release();
        return result;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
        if (lock)
            AddServerReference();
        else
            ReleaseServerReference();
        return S_OK;
    }
};

std::wstring ProgramPath() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

/// Lets no further client in, unless one has called since `last`.
bool EndsActivation(ULONGLONG last) {
    ::CoSuspendClassObjects();
    if (lastCall == last) return true;
    ::CoResumeClassObjects();
    return false;
}

void WaitUntilUnused() {
    for (;;) {
        const ULONGLONG last = lastCall;  // first: a call may come in between
        const ULONGLONG idle = ::GetTickCount64() - last;
        if (idle >= kIdleTimeoutMs) {
            if (EndsActivation(last)) return;
            continue;
        }
        if (::WaitForSingleObject(unused, kIdleTimeoutMs - static_cast<DWORD>(idle)) == WAIT_OBJECT_0) return;
    }
}

}  // namespace

HRESULT Serve() {
    if (ComponentStore().Fault() == L"exit-at-start") return S_OK;
    HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result)) return result;
    unused = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    NoteCall();
    static StationFactory factory;
    DWORD registration = 0;
    result = ::CoRegisterClassObject(__uuidof(PCStation), &factory, CLSCTX_LOCAL_SERVER,
                                     REGCLS_MULTIPLEUSE | REGCLS_SUSPENDED, &registration);
    if (SUCCEEDED(result)) {
        result = ::CoResumeClassObjects();
        WaitUntilUnused();
        ::CoRevokeClassObject(registration);
        // The last client has its answer, but the call may not have ended here yet. Wine, which then forgets
        // the interface, waits for ever if a call of it ends at that very moment (RpcServerUnregisterIf).
        ::Sleep(kLastAnswerMs);
    }
    ::CoUninitialize();
    ::CloseHandle(unused);
    return result;
}

HRESULT Register() {
    ITypeLib* library = nullptr;
    const HRESULT loaded = ::LoadTypeLibEx(ProgramPath().c_str(), REGKIND_REGISTER, &library);
    if (FAILED(loaded)) return loaded;
    library->Release();
    const std::wstring server = L"\"" + ProgramPath() + L"\"";
    const std::wstring serverKey = std::wstring(kClassKey) + L"\\LocalServer32";
    return Result(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, serverKey.c_str(), nullptr, REG_SZ, server.c_str(),
                                    static_cast<DWORD>((server.length() + 1) * sizeof(wchar_t))));
}

HRESULT Unregister() {
    const HRESULT library = ::UnRegisterTypeLib(LIBID_STATMGRLib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
    const LSTATUS server = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClassKey);
    if (server == ERROR_FILE_NOT_FOUND) return S_FALSE;
    return server == ERROR_SUCCESS ? library : Result(server);
}

}  // namespace station_manager
