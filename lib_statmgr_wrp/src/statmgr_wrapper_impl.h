#pragma once

#include <windows.h>

#include <comdef.h>
#include <cstddef>
#include <string>
#include <vector>

#include "station_manager.h"

_COM_SMARTPTR_TYPEDEF(IUnknown, __uuidof(IUnknown));
_COM_SMARTPTR_TYPEDEF(ISetupSupport, __uuidof(ISetupSupport));
_COM_SMARTPTR_TYPEDEF(IComponentControl, __uuidof(IComponentControl));
_COM_SMARTPTR_TYPEDEF(IDiagnostics, __uuidof(IDiagnostics));

namespace korvane {

/// Highest virtual device number, and the most components a station can have.
inline constexpr unsigned long MAX_COMP_VMDID = 32;

/// The station manager's record of one configured component. The unnamed bytes are the station manager's own.
struct StationComponentInfo {
    LONG lVmdID;  ///< virtual device number, 1 to MAX_COMP_VMDID
    BYTE unnamed4[12];
    DWORD dwFlags;
    BYTE unnamed20[8];
    ULONG ulStatus;
    BYTE unnamed32[260];
    char szCatalogEntry[64];  ///< catalogue name of the hardware; zero-terminated only if shorter
    char szName[1984];        ///< component name, zero-terminated, and the record's last unnamed bytes

    std::string CatalogEntry() const;
    std::string Name() const;
    /// The record on one line, for traces.
    std::string Print() const;
};
static_assert(offsetof(StationComponentInfo, dwFlags) == 16);
static_assert(offsetof(StationComponentInfo, ulStatus) == 28);
static_assert(offsetof(StationComponentInfo, szCatalogEntry) == 292);
static_assert(offsetof(StationComponentInfo, szName) == 356);
static_assert(sizeof(StationComponentInfo) == 2340);

/// COM on the calling thread, in the multithreaded apartment.
class ComInterface {
  public:
    virtual ~ComInterface();
    ComInterface() = default;
    ComInterface(const ComInterface&) = delete;
    ComInterface& operator=(const ComInterface&) = delete;

    /// @throws std::runtime_error if the thread cannot have COM, for one because it is in another apartment
    virtual void Initialize();
    /// Gives back what every Initialize took, on the same thread.
    virtual void Cleanup();

  private:
    unsigned int initialisations_ = 0;
};

/// The station object's operations on components and diagnostics. What the object raises in a call is thrown
/// as an operating_system::ForeignException.
class StatMgrCfg {
  public:
    virtual ~StatMgrCfg();
    StatMgrCfg() = default;
    StatMgrCfg(const StatMgrCfg&) = delete;
    StatMgrCfg& operator=(const StatMgrCfg&) = delete;

    /// @throws std::runtime_error if the station object cannot be created
    virtual void Initialize();
    /// Stops one component.
    /// @throws std::runtime_error if the station object does not have the interface
    /// @throws _com_error if the station manager refuses
    virtual HRESULT CfgStopComponent(LONG lVmdID);
    /// Writes one entry of area 0xA5 with the number 0xA500 | `code`.
    /// @throws std::runtime_error if the station object does not have the interface
    /// @throws _com_error if the station manager refuses
    virtual HRESULT DiagEntry(BYTE code, WORD value, DWORD detail);

  private:
    /// Fetches an interface of the station object once and keeps it in `*ppvObject`.
    template <typename InterfacePtr>
    void QueryComInterface(InterfacePtr* ppvObject);

    bool m_isInit = false;
    IUnknownPtr m_pIUnkStatMgr;
    IComponentControlPtr m_pComponentControl;
    IDiagnosticsPtr m_pDiagnostics;
};

/// The station's configuration. What the station object raises in a call is thrown as an
/// operating_system::ForeignException.
class CStatMgrImpl {
  public:
    virtual ~CStatMgrImpl();
    CStatMgrImpl() = default;
    CStatMgrImpl(const CStatMgrImpl&) = delete;
    CStatMgrImpl& operator=(const CStatMgrImpl&) = delete;

    /// @throws std::runtime_error if the station object cannot be created
    virtual void Initalize();
    virtual void Cleanup();
    /// Fills `components` with the configured components, the station itself among them. What follows the
    /// last whole record is left out.
    /// @throws std::runtime_error if the station manager does not answer
    virtual void GetConfigData(std::vector<StationComponentInfo>& components);
    /// Number of configured components, the station itself counted.
    /// @throws std::runtime_error if the station manager does not answer
    virtual LONG GetCountOfObjects();

    bool IsInit() const { return m_isInit; }

  private:
    HRESULT ReadConfigData(std::vector<StationComponentInfo>& components);

    bool m_isInit = false;
    ISetupSupportPtr m_pISetupSupport;
};

/// Code and text of a COM error, for traces.
std::wstring ComErrorText(const _com_error& error);

}  // namespace korvane
