#include "statmgr_wrapper.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "trace_point.h"

TRACE_SOURCE("lib_statmgr_wrp\\src\\statmgr_wrapper", "7c2e5a18-d90b-4b36-8f47-e1b3a6c05d24", trace::kModule);

namespace korvane {
namespace {

/// The two states in which a component may be stopped.
bool MayBeStopped(const StationComponentInfo& component) {
    FUNCTION_TRACE();
    return component.ulStatus == 0x201 || component.ulStatus == 0x205;
}

/// Makes one call for a component. A refusal, returned or raised, is traced and goes no further.
template <typename Call>
void CallForComponent(const char* what, LONG lVmdID, Call call) {
    FUNCTION_TRACE();
    try {
        const HRESULT result = call();
        if (FAILED(result))
            TRACE_INFO(20, "Component %d: %s failed with 0x%x", lVmdID, what, result);
        else
            TRACE_VERBOSE(18, "Component %d: %s done", lVmdID, what);
    } catch (const _com_error& error) {
        TRACE_INFO(19, "Component %d: %s failed: %S", lVmdID, what, ComErrorText(error));
    }
}

}  // namespace

std::shared_ptr<StationManagerIf> StationManagerFactory::Create() {
    FUNCTION_TRACE();
    return std::make_shared<StationManager>();
}

StationManager::StationManager(std::unique_ptr<ComInterface> com, std::unique_ptr<StatMgrCfg> configuration,
                               std::unique_ptr<CStatMgrImpl> implementation)
    : com_(std::move(com)),
      configuration_(std::move(configuration)),
      implementation_(std::move(implementation)) {
    FUNCTION_TRACE();
}

void StationManager::Initialize() {
    FUNCTION_TRACE();
    if (m_isInit) MODUL_THROW(std::runtime_error("COM Interface for PC Station already initialized!"));
    com_->Initialize();
    configuration_->Initialize();
    implementation_->Initalize();
    if (!implementation_->IsInit()) MODUL_THROW(std::runtime_error("Could not StatMgrImplementation"));
    m_isInit = true;
}

bool StationManager::HasPluggedComponentes() {
    FUNCTION_TRACE();
    MODUL_ASSERT(m_isInit);
    const LONG count = implementation_->GetCountOfObjects();
    // The first object is the station itself.
    const bool hasPlugged = count >= 2 && count <= static_cast<LONG>(MAX_COMP_VMDID);
    if (!hasPlugged && count != 1) TRACE_WARNING(10, "%d objects are no valid configuration", count);
    TRACE_VERBOSE(11, "Components are plugged: %s", trace::ToText(hasPlugged));
    return hasPlugged;
}

void StationManager::StopCpBy(const std::string& CpName) {
    FUNCTION_TRACE();
    MODUL_ASSERT(!CpName.empty());
    MODUL_ASSERT(CpName.length() < 128);
    MODUL_ASSERT(m_isInit);
    std::vector<StationComponentInfo> resvec;
    implementation_->GetConfigData(resvec);
    if (resvec.size() < 2) {
        TRACE_INFO(12, "%llu components: there is nothing to stop", resvec.size());
        return;
    }
    MODUL_ASSERT(resvec.size() <= MAX_COMP_VMDID);
    TRACE_INFO(13, "%llu components, looking for %s", resvec.size(), CpName);
    for (const StationComponentInfo& component : resvec) {
        TRACE_VERBOSE(14, "%s", component.Print());
        if (component.CatalogEntry() == CpName && MayBeStopped(component)) StopComponent(component);
    }
}

void StationManager::StopComponent(const StationComponentInfo& component) {
    FUNCTION_TRACE();
    constexpr BYTE kStoppedByRemoval = 35;
    constexpr WORD kReason = 1;
    constexpr int kVirtualDeviceShift = 24;
    const LONG lVmdID = component.lVmdID;
    MODUL_ASSERT(lVmdID <= LONG{MAX_COMP_VMDID});
    MODUL_ASSERT(lVmdID > 0);
    CallForComponent("stop", lVmdID, [&] { return configuration_->CfgStopComponent(lVmdID); });
    CallForComponent("diagnostic entry", lVmdID, [&] {
        return configuration_->DiagEntry(kStoppedByRemoval, kReason,
                                         static_cast<ULONG>(lVmdID) << kVirtualDeviceShift);
    });
}

}  // namespace korvane
