#pragma once

/// The bare counterpart of the service, a process of its own: the same device notification, a worker that it
/// wakes, and the calls that the plug-in makes of the configuration library, loaded once for each event, and
/// of the station manager, in an apartment made for each event.
namespace bench {

inline constexpr wchar_t kBareStationIsReady[] = L"tessabench_bare_station_is_ready";
inline constexpr wchar_t kBareStationShallStop[] = L"tessabench_bare_station_shall_stop";

}  // namespace bench
