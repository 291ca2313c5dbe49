#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "station_state.h"

// Partners that nobody here wrote may never answer. doctor asks them through a process of its own, which runs
// the hidden command "probe".
namespace tessactl {

/// Fills in the access points of the models as the configuration library tells them.
/// @return why they are not known, in UTF-8; empty if they are
std::string ProbeConfigurationLibrary(std::vector<StationState::Model>& models,
                                      std::chrono::milliseconds limit);

/// Starts the station manager if need be and asks it how much is configured.
/// @return why it does not answer, in UTF-8; empty if it does
std::string ProbeStationManager(std::chrono::milliseconds limit);

}  // namespace tessactl
