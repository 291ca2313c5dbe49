#pragma once

#include "json.h"
#include "station_state.h"

namespace tessactl {

/// The station as JSON.
Json JsonOf(const StationState& state);

}  // namespace tessactl
