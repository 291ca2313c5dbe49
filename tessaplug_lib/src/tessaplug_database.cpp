#include "tessaplug_database.h"

#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_database", "3f6a1c50-8e0d-4d0a-9a77-51c2b0e6d411",
             trace::kModule);

namespace tessaplug {
namespace {

constexpr char kFennlinkU3Name[] = "Fennlink U3";

/// The checks that both constructors of a model make; each has fixed lines of its own.
void CheckNames(const std::wstring& Displayed_Device_Name, unsigned int displayedNameLine,
                const std::vector<std::wstring>& Supported_Log_Devices, unsigned int logDeviceLine) {
    FUNCTION_TRACE();
    MODUL_ASSERT_AT(displayedNameLine, Displayed_Device_Name.length() > 0);
    MODUL_ASSERT_AT(displayedNameLine + 1, Displayed_Device_Name.length() < 128);
    for (auto it = Supported_Log_Devices.begin(); it != Supported_Log_Devices.end(); ++it) {
        MODUL_ASSERT_AT(logDeviceLine, (*it).length() > 0);
        MODUL_ASSERT_AT(logDeviceLine + 1, (*it).length() < 128);
    }
}

}  // namespace

std::shared_ptr<ServiceDbIf> ServiceDbIf::create_database() {
    FUNCTION_TRACE();
    return std::make_shared<ServiceDb>();
}

ServiceDb::ServiceDb()
    : globalInstanceLockName_(L"TESSAPLUG_INSTANCE_LOCK__{28A2EEC4-8E69-48DC-A466-EF82F7220B13}"),
      apiVersion_(0x00010001) {
    FUNCTION_TRACE();
}

std::vector<std::shared_ptr<CommunicationProcessorDb>> CommunicationProcessorDbIf::create_database() {
    FUNCTION_TRACE();
    // The NX3307 has no row on purpose: it gets shared memory and a mutex, but is neither tracked nor shown.
    return {std::make_shared<CommunicationProcessorDb>(
                std::vector<std::wstring>{L"Fennlink U3(AUTO)", L"Fennlink U3(XLI)", L"Fennlink U3(PROFIBUS)",
                                          L"Fennlink U3(FWL)", L"Fennlink U3(FWL_FAST_LOAD)"},
                kFennlinkU3InterfaceGuid, toolbox::StringToWstring(kFennlinkU3Name)),
            std::make_shared<CommunicationProcessorDb>(
                std::vector<std::wstring>{L"NX4120(AUTO)", L"NX4120(XLI)", L"NX4120(PROFIBUS)",
                                          L"NX4120(FWL)", L"NX4120(FWL_FAST_LOAD)"},
                kNx4120InterfaceGuid, L"NX4120", L"NX4120")};
}

CommunicationProcessorDb::CommunicationProcessorDb(const std::vector<std::wstring>& Supported_Log_Devices,
                                                   const GUID& Device_Interface_Guid,
                                                   const std::wstring& Displayed_Device_Name)
    : supportedLogDevices_(Supported_Log_Devices),
      deviceInterfaceGuid_(Device_Interface_Guid),
      displayedDeviceName_(Displayed_Device_Name) {
    FUNCTION_TRACE();
    CheckNames(Displayed_Device_Name, 134, Supported_Log_Devices, 141);
}

CommunicationProcessorDb::CommunicationProcessorDb(const std::vector<std::wstring>& Supported_Log_Devices,
                                                   const GUID& Device_Interface_Guid,
                                                   const std::wstring& Displayed_Device_Name,
                                                   const std::wstring& StatMgr_Catalog_Name)
    : supportedLogDevices_(Supported_Log_Devices),
      deviceInterfaceGuid_(Device_Interface_Guid),
      displayedDeviceName_(Displayed_Device_Name),
      stationManagerCatalogName_(StatMgr_Catalog_Name) {
    FUNCTION_TRACE();
    MODUL_ASSERT_AT(105, StatMgr_Catalog_Name.length() > 0);
    MODUL_ASSERT_AT(106, StatMgr_Catalog_Name.length() < 64);
    CheckNames(Displayed_Device_Name, 107, Supported_Log_Devices, 114);
}

}  // namespace tessaplug
