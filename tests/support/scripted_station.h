#pragma once

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "station_manager.h"
#include "statmgr_wrapper_impl.h"

namespace test_support {

/// A station manager inside the test program, scripted by its members and reached through COM like the real
/// one. The thread that makes it is in the multithreaded apartment as long as it lives.
class ScriptedStation final : public ISetupSupport,
                              public IComponentControl,
                              public IDiagnostics,
                              public IClassFactory {
  public:
    /// @param contexts in which it can be had
    explicit ScriptedStation(DWORD contexts = CLSCTX_LOCAL_SERVER | CLSCTX_INPROC_SERVER) {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        // Multiple use would add the in-process server to whatever the contexts are.
        if (FAILED(::CoRegisterClassObject(__uuidof(PCStation), static_cast<IClassFactory*>(this), contexts,
                                           REGCLS_MULTI_SEPARATE, &registration_)))
            throw std::runtime_error("the class object cannot be registered");
    }
    ~ScriptedStation() {
        ::CoRevokeClassObject(registration_);
        ::CoUninitialize();
    }
    ScriptedStation(const ScriptedStation&) = delete;
    ScriptedStation& operator=(const ScriptedStation&) = delete;

    void Add(LONG virtualDevice, const std::string& catalogEntry, ULONG status = 0x201) {
        korvane::StationComponentInfo component = {};
        component.lVmdID = virtualDevice;
        component.ulStatus = status;
        catalogEntry.copy(component.szCatalogEntry, sizeof component.szCatalogEntry);
        components.push_back(component);
    }

    std::vector<korvane::StationComponentInfo> components;
    std::size_t surplusBytes = 0;
    HRESULT getDataResult = S_OK;
    std::vector<LONG> refused;  // by StopComponent
    HRESULT addEntryResult = S_OK;
    IID missingInterface = {};
    IID nullInterface = {};  ///< claimed and not handed out
    HRESULT createSetupSupportResult = S_OK;
    // Called where the station is; what they throw or raise is what the station does.
    std::function<void()> onGetData = [] {};
    std::function<void(VARIANT&)> onAnswer = [](VARIANT&) {};  ///< before GetData returns
    std::function<void()> onStop = [] {};
    std::function<void()> onAddEntry = [] {};
    std::function<void(REFIID)> onQuery = [](REFIID) {};
    std::function<void(REFIID)> onCreate = [](REFIID) {};
    std::function<void()> onRelease = [] {};
    std::vector<std::string> journal;
    std::vector<IID> queried;  ///< interfaces, in order
    LONG references = 0;       ///< held by clients

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        *object = nullptr;
        queried.push_back(iid);
        onQuery(iid);
        if (IsEqualIID(iid, missingInterface)) return E_NOINTERFACE;
        if (IsEqualIID(iid, nullInterface)) return S_OK;
        if (IsEqualIID(iid, __uuidof(IUnknown)) || IsEqualIID(iid, __uuidof(ISetupSupport)))
            *object = static_cast<ISetupSupport*>(this);
        else if (IsEqualIID(iid, __uuidof(IComponentControl)))
            *object = static_cast<IComponentControl*>(this);
        else if (IsEqualIID(iid, __uuidof(IDiagnostics)))
            *object = static_cast<IDiagnostics*>(this);
        else if (IsEqualIID(iid, __uuidof(IClassFactory)))
            *object = static_cast<IClassFactory*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
    ULONG STDMETHODCALLTYPE Release() override {
        onRelease();
        return static_cast<ULONG>(--references);
    }

    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** object) override {
        onCreate(iid);
        if (IsEqualIID(iid, __uuidof(ISetupSupport)) && FAILED(createSetupSupportResult))
            return createSetupSupportResult;
        return QueryInterface(iid, object);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

    HRESULT STDMETHODCALLTYPE GetData(LONG kind, VARIANT* data) override {
        onGetData();
        if (kind != STATION_CONFIG_DATA) return E_INVALIDARG;
        if (FAILED(getDataResult)) return getDataResult;
        const std::size_t size = components.size() * sizeof components[0];
        data->vt = VT_ARRAY | VT_UI1;
        data->parray = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(size + surplusBytes));
        if (size > 0) std::memcpy(data->parray->pvData, components.data(), size);
        onAnswer(*data);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE StopComponent(LONG virtualDevice, LONG reserved) override {
        journal.push_back("stop " + std::to_string(virtualDevice) + " " + std::to_string(reserved));
        onStop();
        for (const LONG number : refused)
            if (number == virtualDevice) return E_ACCESSDENIED;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE StartComponent(LONG, LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE AddEntry(BYTE area, USHORT code, USHORT value, ULONG detail) override {
        char text[64] = {};
        std::snprintf(text, sizeof text, "entry %u 0x%X %u 0x%lX", area, code, value, detail);
        journal.push_back(text);
        onAddEntry();
        return addEntryResult;
    }

  private:
    DWORD registration_ = 0;
};

}  // namespace test_support
