#pragma once

#include <memory>
#include <string>

#include "statmgr_wrapper_impl.h"

namespace korvane {

/// What the plug-in wants of the station manager.
class StationManagerIf {
  public:
    virtual ~StationManagerIf() = default;
    virtual void Initialize() = 0;
    virtual bool HasPluggedComponentes() = 0;
    virtual void StopCpBy(const std::string& CpName) = 0;
};

/// The station manager of this machine, an out-of-process COM server that owns the configured components.
///
/// Threads: created, used and destroyed on the thread that calls Initialize, which is in COM's multithreaded
/// apartment as long as the object lives.
class StationManager : public StationManagerIf {
  public:
    explicit StationManager(std::unique_ptr<ComInterface> com = std::make_unique<ComInterface>(),
                            std::unique_ptr<StatMgrCfg> configuration = std::make_unique<StatMgrCfg>(),
                            std::unique_ptr<CStatMgrImpl> implementation = std::make_unique<CStatMgrImpl>());

    /// Opens COM and creates the station manager's objects. Called once.
    /// @throws std::runtime_error if it was called before, or if COM or the station manager cannot be had
    void Initialize() override;
    /// Whether anything besides the station itself is configured.
    /// @throws std::runtime_error if the station manager does not answer
    bool HasPluggedComponentes() override;
    /// Stops every component that is configured for a communication processor and may be stopped, and leaves
    /// an entry in the station's diagnostics for each. A component that refuses does not keep the next ones
    /// from being stopped.
    /// @param CpName catalogue name of the communication processor, 1 to 127 characters
    /// @throws std::runtime_error if the station manager does not answer
    void StopCpBy(const std::string& CpName) override;

  private:
    void StopComponent(const StationComponentInfo& component);

    bool m_isInit = false;
    // In this order: COM is left after the last interface is released.
    std::unique_ptr<ComInterface> com_;
    std::unique_ptr<StatMgrCfg> configuration_;
    std::unique_ptr<CStatMgrImpl> implementation_;
};

class StationManagerFactory {
  public:
    virtual ~StationManagerFactory() = default;
    /// A station manager that is not initialised yet.
    virtual std::shared_ptr<StationManagerIf> Create();
};

}  // namespace korvane
