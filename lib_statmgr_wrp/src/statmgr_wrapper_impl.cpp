#include "statmgr_wrapper_impl.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "trace_point.h"

TRACE_SOURCE("lib_statmgr_wrp\\src\\statmgr_wrapper_impl", "1d7b9e40-52c6-4f8a-b1e3-6a0c8d4f2b13",
             trace::kModule);

// The station object may live in this process, and then its faults are raised here. Every call into it stands
// in a guard in which nothing is held, and its results are taken over only when it has returned.
using operating_system::CallForeign;
using operating_system::Completes;

// The run time of this tool chain declares it and leaves it out.
void WINAPI _com_issue_errorex(HRESULT code, IUnknown* object, REFIID iid) {
    FUNCTION_TRACE();
    IErrorInfo* description = nullptr;
    const auto describe = [&] {
        ISupportErrorInfo* support = nullptr;
        if (FAILED(object->QueryInterface(__uuidof(ISupportErrorInfo), reinterpret_cast<void**>(&support))))
            return;
        const bool isSupported = support->InterfaceSupportsErrorInfo(iid) == S_OK;
        support->Release();
        if (isSupported) ::GetErrorInfo(0, &description);
    };
    // An object that fails in this too still has its error raised, without a description.
    if (object != nullptr && !Completes(describe)) description = nullptr;
    throw _com_error(code, description);  // which releases the description
}

namespace korvane {
namespace {

std::string Bounded(const char* text, std::size_t size) {
    FUNCTION_TRACE();
    return {text, ::strnlen(text, size)};
}

/// Empties the VARIANT of a call that has returned at the end of its scope. What a call left behind that did
/// not return is nobody's to empty.
struct ScopedVariant {
    VARIANT value;
    explicit ScopedVariant(const VARIANT& returned) : value(returned) {}
    ~ScopedVariant() {
        Completes([this] { ::VariantClear(&value); });
    }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
};

/// Takes an interface out of its owner before it is released: one that fails in that is not released again.
template <typename InterfacePtr>
void ReleaseForeign(InterfacePtr& owner) {
    FUNCTION_TRACE();
    auto* object = owner.Detach();
    if (object != nullptr) CallForeign([object] { object->Release(); });
}

/// The same where nothing may be thrown.
template <typename InterfacePtr>
void ReleaseQuietly(InterfacePtr& owner) {
    FUNCTION_TRACE();
    auto* object = owner.Detach();
    if (object != nullptr) Completes([object] { object->Release(); });
}

/// The bytes of a one-dimensional array of bytes.
struct Bytes {
    const void* first = nullptr;
    std::size_t size = 0;
};

Bytes BytesOf(SAFEARRAY* array) {
    FUNCTION_TRACE();
    LONG lower = 0;
    LONG upper = -1;
    if (array == nullptr || ::SafeArrayGetDim(array) != 1 || FAILED(::SafeArrayGetLBound(array, 1, &lower)) ||
        FAILED(::SafeArrayGetUBound(array, 1, &upper)))
        return {};
    return {array->pvData, static_cast<std::size_t>(static_cast<LONGLONG>(upper) - lower + 1)};
}

/// The whole records in a one-dimensional array of bytes; none in anything else.
std::vector<StationComponentInfo> RecordsIn(const VARIANT& data) {
    FUNCTION_TRACE();
    std::vector<StationComponentInfo> records;
    if (data.vt != (VT_ARRAY | VT_UI1)) {
        TRACE_WARNING(10, "Configuration data of type %u holds no records", data.vt);
        return records;
    }
    const Bytes bytes = CallForeign([&data] { return BytesOf(data.parray); });
    if (bytes.size % sizeof(StationComponentInfo) != 0)
        TRACE_WARNING(11, "%llu bytes of configuration data are no whole number of records", bytes.size);
    records.resize(bytes.size / sizeof(StationComponentInfo));
    if (!records.empty())
        CallForeign(
            [&] { std::memcpy(records.data(), bytes.first, records.size() * sizeof(StationComponentInfo)); });
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
    ++initialisations_;
}

void ComInterface::Cleanup() {
    FUNCTION_TRACE();
    // The last one frees the servers in this process.
    for (; initialisations_ > 0; --initialisations_)
        Completes([] { ::CoUninitialize(); });
}

StatMgrCfg::~StatMgrCfg() {
    FUNCTION_TRACE();
    ReleaseQuietly(m_pDiagnostics);
    ReleaseQuietly(m_pComponentControl);
    ReleaseQuietly(m_pIUnkStatMgr);
}

void StatMgrCfg::Initialize() {
    FUNCTION_TRACE();
    ReleaseForeign(m_pIUnkStatMgr);
    IUnknown* station = nullptr;
    const HRESULT result = CallForeign([&station] {
        return ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                                  reinterpret_cast<void**>(&station));
    });
    if (FAILED(result)) {
        TRACE_ERROR(13, "The station object cannot be created, 0x%x", result);
        MODUL_THROW(std::runtime_error("FAILED: CoCreateInstance(CLSID_PCStation)!"));
    }
    m_pIUnkStatMgr.Attach(station);
    m_isInit = true;
}

template <typename InterfacePtr>
void StatMgrCfg::QueryComInterface(InterfacePtr* ppvObject) {
    FUNCTION_TRACE();
    MODUL_ASSERT(ppvObject != NULL);
    MODUL_ASSERT(m_pIUnkStatMgr != NULL);
    if (*ppvObject == nullptr) {
        typename InterfacePtr::Interface* object = nullptr;
        const HRESULT result = m_pIUnkStatMgr == nullptr ? E_POINTER : CallForeign([&] {
            return m_pIUnkStatMgr.GetInterfacePtr()->QueryInterface(InterfacePtr::GetIID(),
                                                                    reinterpret_cast<void**>(&object));
        });
        if (FAILED(result)) {
            TRACE_ERROR(14, "QueryInterface() failed with 0x%x", result);
            MODUL_THROW(std::runtime_error("QueryInterface COM FAILED!"));
        }
        ppvObject->Attach(object);
    }
    MODUL_ASSERT(*ppvObject != NULL);
}

HRESULT StatMgrCfg::CfgStopComponent(LONG lVmdID) {
    FUNCTION_TRACE();
    MODUL_ASSERT(m_isInit);
    QueryComInterface(std::addressof(m_pComponentControl));
    const HRESULT result = CallForeign([&] { return m_pComponentControl->StopComponent(lVmdID, 0); });
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
    const HRESULT result = CallForeign(
        [&] { return m_pDiagnostics->AddEntry(kArea, static_cast<WORD>(kNumbers | code), value, detail); });
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
        static_assert(CLSCTX_ALL == 23);
        ReleaseForeign(m_pISetupSupport);
        ISetupSupport* station = nullptr;
        const HRESULT result = CallForeign([&station] {
            return ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_ALL, __uuidof(ISetupSupport),
                                      reinterpret_cast<void**>(&station));
        });
        if (FAILED(result)) _com_issue_error(result);
        m_pISetupSupport.Attach(station);
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
    m_isInit = false;
    ReleaseForeign(m_pISetupSupport);
}

HRESULT CStatMgrImpl::ReadConfigData(std::vector<StationComponentInfo>& components) {
    FUNCTION_TRACE();
    MODUL_ASSERT(m_isInit);
    MODUL_ASSERT(m_pISetupSupport != NULL);
    VARIANT returned = {};
    const HRESULT result =
        CallForeign([&] { return m_pISetupSupport->GetData(STATION_CONFIG_DATA, &returned); });
    const ScopedVariant data(returned);
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
