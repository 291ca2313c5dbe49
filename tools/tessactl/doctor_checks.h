#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "findings.h"
#include "service_query.h"
#include "station_state.h"

// What doctor looks at, one family of checks a file.
namespace tessactl {

using Models = std::vector<StationState::Model>;

/// What doctor was told about the station.
struct Expectations {
    std::wstring service = kDefaultService;
    std::wstring plugIn = kDefaultPlugIn;
    std::vector<std::wstring> models;  ///< displayed names of the models that have to be there
    std::chrono::milliseconds timeOut = std::chrono::seconds(10);

    bool IsExpected(const StationState::Model& model) const;
};

/// Asks a partner while something else is looked at: they take the longest.
class Inquiry {
  public:
    /// @param ask says why the partner does not answer, in UTF-8; empty if it does
    explicit Inquiry(std::function<std::string()> ask);
    /// Waits for it, once.
    /// @return what `ask` said
    /// @throws what `ask` threw
    std::string Answer();

  private:
    std::string answer_;
    std::exception_ptr error_;
    std::jthread asking_;  // last: it writes into the others
};

/// The service, and what the service manager does with it.
void CheckService(Findings& findings, const QueriedService& service);
void CheckServiceSettings(Findings& findings, const QueriedService& service);

/// The plug-in in the service's process: whether it runs there, what it threw last, and whether it still
/// shows the drivers' messages.
void CheckPlugIn(Findings& findings, const QueriedService& service, const std::wstring& plugIn);

/// Whether host, plug-in, this tool and the trace formats are of one build, and the files those that run.
void CheckBuilds(Findings& findings, const QueriedService& service, const std::wstring& plugIn);

/// The configuration library.
/// @param inquiry fills in how the access points stand; the models are not to be touched before
/// @return whether that is known
bool CheckLibrary(Findings& findings, Inquiry& inquiry);

/// Adapters and access points.
void CheckAccessPoints(Findings& findings, const Models& models);
void CheckAdapters(Findings& findings, const Models& models, bool accessPointsAreKnown,
                   const Expectations& expectations);

/// What else has to be installed.
void CheckPanel(Findings& findings, const Models& models, bool accessPointsAreKnown);

/// What starts the station manager; nothing: it is not registered.
std::optional<std::string> StationManagerServer();
void CheckStationManager(Findings& findings, const Models& models, const Expectations& expectations,
                         const std::optional<std::string>& server, Inquiry& inquiry);
void CheckDriverMessages(Findings& findings);
void CheckEventSource(Findings& findings);

}  // namespace tessactl
