#include "statmgr_wrapper_impl.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "trace_point.h"

TRACE_SOURCE("lib_statmgr_wrp\\src\\statmgr_wrapper_impl", "1d7b9e40-52c6-4f8a-b1e3-6a0c8d4f2b13",
             trace::kModule);

// The run time of this tool chain declares it and leaves it out.
void WINAPI _com_issue_errorex(HRESULT code, IUnknown* object, REFIID iid) {
    FUNCTION_TRACE();
    IErrorInfo* description = nullptr;
    ISupportErrorInfo* support = nullptr;
    if (object != nullptr &&
        SUCCEEDED(object->QueryInterface(__uuidof(ISupportErrorInfo), reinterpret_cast<void**>(&support)))) {
        if (support->InterfaceSupportsErrorInfo(iid) == S_OK) ::GetErrorInfo(0, &description);
        support->Release();
    }
    throw _com_error(code, description);  // which releases the description
}

namespace korvane {
namespace {

std::string Bounded(const char* text, std::size_t size) {
    FUNCTION_TRACE();
    return {text, ::strnlen(text, size)};
}

/// Empties a VARIANT at the end of its scope.
struct ScopedVariant {
    VARIANT value;
    ScopedVariant() { ::VariantInit(&value); }
    ~ScopedVariant() { ::VariantClear(&value); }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
};

/// The whole records in a one-dimensional array of bytes; none in anything else.
std::vector<StationComponentInfo> RecordsIn(const VARIANT& data) {
    FUNCTION_TRACE();
    std::vector<StationComponentInfo> records;
    if (data.vt != (VT_ARRAY | VT_UI1) || data.parray == nullptr || ::SafeArrayGetDim(data.parray) != 1) {
        TRACE_WARNING(10, "Configuration data of type %u holds no records", data.vt);
        return records;
    }
    LONG first = 0;
    LONG last = -1;
    void* bytes = nullptr;
    if (FAILED(::SafeArrayGetLBound(data.parray, 1, &first)) ||
        FAILED(::SafeArrayGetUBound(data.parray, 1, &last)) ||
        FAILED(::SafeArrayAccessData(data.parray, &bytes)))
        return records;
    const auto size = static_cast<std::size_t>(static_cast<LONGLONG>(last) - first + 1);
    if (size % sizeof(StationComponentInfo) != 0)
        TRACE_WARNING(11, "%llu bytes of configuration data are no whole number of records", size);
    records.resize(size / sizeof(StationComponentInfo));
    if (!records.empty()) std::memcpy(records.data(), bytes, records.size() * sizeof(StationComponentInfo));
    ::SafeArrayUnaccessData(data.parray);
    return records;
}

}  // namespace

std::string StationComponentInfo::CatalogEntry() const {
    FUNCTION_TRACE();
    return Bounded(szCatalogEntry, sizeof szCatalogEntry);
}

std::string StationComponentInfo::Name() const {
    FUNCTION_TRACE();
    return Bounded(szName, sizeof szName);
}

std::string StationComponentInfo::Print() const {
    FUNCTION_TRACE();
    char numbers[64] = {};
    std::snprintf(numbers, sizeof numbers, ", ulStatus=0x%lx, dwFlags=0x%lx", ulStatus, dwFlags);
    return "StationComponentInfo: lVmdID=" + std::to_string(lVmdID) + ", szCatalogEntry=" + CatalogEntry() +
           ", szName=" + Name() + numbers;
}

std::wstring ComErrorText(const _com_error& error) {
    FUNCTION_TRACE();
    const wchar_t* text = error.ErrorMessage();
    wchar_t code[16] = {};
    std::swprintf(code, ARRAYSIZE(code), L"0x%08lx ", error.Error());
    return code + std::wstring(text != nullptr ? text : L"");
}

ComInterface::~ComInterface() {
    FUNCTION_TRACE();
    ComInterface::Cleanup();
}

void ComInterface::Initialize() {
    FUNCTION_TRACE();
    const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result)) {
        TRACE_ERROR(12, "CoInitializeEx() failed with 0x%x, LE(%u)", result, ::GetLastError());
        MODUL_THROW(std::runtime_error("CStatMgrImpl::CTOR - CoInitializeEx() FAILED"));
    }
    isInit_ = true;
}

void ComInterface::Cleanup() {
    FUNCTION_TRACE();
    if (isInit_) ::CoUninitialize();
    isInit_ = false;
}

void StatMgrCfg::Initialize() {
    FUNCTION_TRACE();
    const HRESULT result = ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER,
                                              __uuidof(IUnknown), reinterpret_cast<void**>(&m_pIUnkStatMgr));
    if (FAILED(result)) {
        TRACE_ERROR(13, "The station object cannot be created, 0x%x", result);
        MODUL_THROW(std::runtime_error("FAILED: CoCreateInstance(CLSID_PCStation)!"));
    }
    m_isInit = true;
}

template <typename InterfacePtr>
void StatMgrCfg::QueryComInterface(InterfacePtr* ppvObject) {
    FUNCTION_TRACE();
    MODUL_ASSERT(ppvObject != NULL);
    MODUL_ASSERT(m_pIUnkStatMgr != NULL);
    if (*ppvObject == nullptr) {
        const HRESULT result = m_pIUnkStatMgr == nullptr
                                   ? E_POINTER
                                   : m_pIUnkStatMgr->QueryInterface(InterfacePtr::GetIID(),
                                                                    reinterpret_cast<void**>(&*ppvObject));
        if (FAILED(result)) {
            TRACE_ERROR(14, "QueryInterface() failed with 0x%x", result);
            MODUL_THROW(std::runtime_error("QueryInterface COM FAILED!"));
        }
    }
    MODUL_ASSERT(*ppvObject != NULL);
}

HRESULT StatMgrCfg::CfgStopComponent(LONG lVmdID) {
    FUNCTION_TRACE();
    MODUL_ASSERT(m_isInit);
    QueryComInterface(std::addressof(m_pComponentControl));
    const HRESULT result = m_pComponentControl->StopComponent(lVmdID, 0);
    TRACE_INFO(15, "StopComponent(%d) returned 0x%x", lVmdID, result);
    if (FAILED(result)) _com_issue_errorex(result, m_pComponentControl, __uuidof(IComponentControl));
    return result;
}

HRESULT StatMgrCfg::DiagEntry(BYTE code, WORD value, DWORD detail) {
    FUNCTION_TRACE();
    constexpr BYTE kArea = 0xA5;
    constexpr WORD kNumbers = 0xA500;
    MODUL_ASSERT(m_isInit);
    QueryComInterface(std::addressof(m_pDiagnostics));
    const HRESULT result = m_pDiagnostics->AddEntry(kArea, static_cast<WORD>(kNumbers | code), value, detail);
    TRACE_INFO(16, "AddEntry(0x%x, %u, 0x%x) returned 0x%x", kNumbers | code, value, detail, result);
    if (FAILED(result)) _com_issue_errorex(result, m_pDiagnostics, __uuidof(IDiagnostics));
    return result;
}

CStatMgrImpl::~CStatMgrImpl() {
    FUNCTION_TRACE();
    try {
        CStatMgrImpl::Cleanup();
    } catch (const _com_error& error) {
        TRACE_ERROR(17, "Releasing the station object: %S", ComErrorText(error));
        MODUL_FAIL("COM-Exception in CStatMgrImpl");
    } catch (...) {
        MODUL_FAIL("Unhandled exception in StationManagerImpl-DTOR");
    }
}

void CStatMgrImpl::Initalize() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!m_isInit);
    try {
        const HRESULT result =
            ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_ALL, __uuidof(ISetupSupport),
                               reinterpret_cast<void**>(&m_pISetupSupport));
        static_assert(CLSCTX_ALL == 23);
        if (FAILED(result)) _com_issue_error(result);
    } catch (const _com_error& error) {
        TRACE_ERROR(18, "The station object cannot be created: %S", ComErrorText(error));
        MODUL_THROW(std::runtime_error("Unhandled COM exception in StationManagerImpl-CTOR"));
    } catch (...) {
        MODUL_THROW(std::runtime_error("Unhandled exception in StationManagerImpl-CTOR"));
    }
    m_isInit = true;
}

void CStatMgrImpl::Cleanup() {
    FUNCTION_TRACE();
    if (m_pISetupSupport != nullptr) m_pISetupSupport.Release();
    m_isInit = false;
}

HRESULT CStatMgrImpl::ReadConfigData(std::vector<StationComponentInfo>& components) {
    FUNCTION_TRACE();
    MODUL_ASSERT(m_isInit);
    MODUL_ASSERT(m_pISetupSupport != NULL);
    ScopedVariant data;
    const HRESULT result = m_pISetupSupport->GetData(STATION_CONFIG_DATA, &data.value);
    if (SUCCEEDED(result)) components = RecordsIn(data.value);
    TRACE_INFO(19, "GetData(STATION_CONFIG_DATA) returned 0x%x, %llu records", result, components.size());
    return result;
}

void CStatMgrImpl::GetConfigData(std::vector<StationComponentInfo>& components) {
    FUNCTION_TRACE();
    try {
        if (FAILED(ReadConfigData(components)))
            MODUL_THROW(
                std::runtime_error("STATMGRLib::ISetupSupportPtr::GetData(STATION_CONFIG_DATA) FAILED!"));
    } catch (const _com_error& error) {
        TRACE_ERROR(20, "GetConfigData: %S", ComErrorText(error));
        MODUL_THROW(std::runtime_error("Caught COM-EXCPETION: CStatMgrImpl::GetConfigData()!"));
    }
}

LONG CStatMgrImpl::GetCountOfObjects() {
    FUNCTION_TRACE();
    std::vector<StationComponentInfo> components;
    try {
        if (FAILED(ReadConfigData(components)))
            MODUL_THROW(std::runtime_error("CStatMgrImpl::GetData(STATION_CONFIG_DATA) FAILED!"));
    } catch (const _com_error& error) {
        TRACE_ERROR(21, "GetCountOfObjects: %S", ComErrorText(error));
        MODUL_THROW(std::runtime_error("Caught COM-EXCPETION: CStatMgrImpl::GetCountOfObjects()!"));
    }
    return static_cast<LONG>(components.size());
}

}  // namespace korvane
