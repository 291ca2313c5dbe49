#pragma once

/// The bare counterparts of the service:
/// - the bare station, a service of its own: the same device notification, a worker that it wakes, and the
///   calls that the plug-in makes of the configuration library, loaded once for each event, and of the
///   station manager, in an apartment made for each event;
/// - the bare reader, a process that tells when it is ready and runs until it is told to stop: the same waits
///   for the event log and the same reads of it, and nothing else.
namespace bench {

inline constexpr wchar_t kBareStationService[] = L"tessabench";
inline constexpr wchar_t kBareProcessIsReady[] = L"tessabench_bare_process_is_ready";
inline constexpr wchar_t kBareProcessShallStop[] = L"tessabench_bare_process_shall_stop";
/// Shared memory, made by whoever runs the bare reader, in which that leaves the number of the last record
/// that it has read: a LONG.
inline constexpr wchar_t kBareReaderNumber[] = L"tessabench_bare_reader_number";

}  // namespace bench
