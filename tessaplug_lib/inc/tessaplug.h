/**
 * tessaplug.dll: a service plug-in that looks after communication adapters.
 *
 * A host service loads the library, resolves the three functions below and drives it with them. The host owns
 * the service: its status handle, the control dispatcher and the transitions to running and stopped. The
 * plug-in starts two threads at most and ends them in tessaplug_cleanup.
 *
 * Life cycle, once per process:
 *
 *     LoadLibrary -> tessaplug_init -> (tessaplug_service_ctrl_handler)* -> tessaplug_cleanup -> FreeLibrary
 *
 * No exception ever leaves these functions. The library needs nothing but Windows' own DLLs. It compiles as C
 * and as C++.
 */
#ifndef TESSAPLUG_H
#define TESSAPLUG_H

#include <windows.h>
#include <winsvc.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The version that tessaplug_init accepts. */
#define TESSAPLUG_API_VERSION 0x00010001u

/**
 * Identifiers of the entries that the plug-in writes into the Application log, under the event source
 * "tessaplug". Their texts are in the library's own message table.
 */
#define TESSAPLUG_EVENT_STARTED 0x00000100u       /**< information: started */
#define TESSAPLUG_EVENT_NOT_RUNNING 0x80000104u   /**< warning: a device event arrived while not running */
#define TESSAPLUG_EVENT_MONITOR_ENDED 0x80000105u /**< warning: drivers' errors are shown no longer */
#define TESSAPLUG_EVENT_START_FAILED 0xC0000101u  /**< error: not started */

/**
 * The host's status callback. The plug-in calls it from within tessaplug_init, before each start step and
 * while a failed start is undone, with SERVICE_START_PENDING, a wait hint of 3000 ms and a check point that
 * counts up; the host passes the record on to SetServiceStatus. The plug-in leaves dwServiceType zero: the
 * host fills it in. It holds none of its locks meanwhile, so the host may call the plug-in from within the
 * callback. An exception that leaves the callback, a structured one included, ends the start; it is asserted
 * unless it is a std::exception of the plug-in's own run time.
 *
 * @param hostContext what was given to tessaplug_init; null once tessaplug_cleanup has begun
 * @param status the record to be reported; belongs to the plug-in and is valid during the call only
 */
typedef void(WINAPI* TESSAPLUG_STATUS_CALLBACK)(void* hostContext, SERVICE_STATUS* status);

/**
 * Starts the plug-in. Call it once after loading the library, on the service's main thread, before reporting
 * SERVICE_RUNNING. It takes some hundred milliseconds when adapters are present.
 *
 * @param apiVersion TESSAPLUG_API_VERSION
 * @param serviceStatusHandle the service's status handle, to which Windows delivers the device events
 * @param statusCallback receives the start's progress; must not be null
 * @param hostContext passed to the callback, not interpreted
 * @param reserved 0
 * @return 1 if started. 0 if not: a parameter was refused, another process on this machine runs the plug-in,
 *     the plug-in was started before in this process (also if it was cleaned up and loaded anew since: the
 *     instance lock stays with the process), a start step failed, or tessaplug_cleanup was called meanwhile;
 *     in the latter cases what it had built is undone. The reason is in the trace; either outcome is in the
 *     Application log.
 */
DWORD WINAPI tessaplug_init(DWORD apiVersion, SERVICE_STATUS_HANDLE serviceStatusHandle,
                            TESSAPLUG_STATUS_CALLBACK statusCallback, void* hostContext, ULONG_PTR reserved);

/**
 * Stops the plug-in: waits for a device event that is being handled, then closes what tessaplug_init opened.
 * Takes two to four seconds beyond that. Returns quietly if the plug-in does not run. The single-instance
 * lock is held until the process ends.
 *
 * Called while tessaplug_init runs, from within the status callback or on another thread, it returns at once:
 * tessaplug_init then undoes the start and returns 0, and the callback gets a null context from there on. The
 * library must stay loaded until tessaplug_init has returned. Called while another tessaplug_cleanup runs, it
 * returns at once as well.
 *
 * While a driver's error is shown, one thread waits for the user's answer: it is left, and the library stays
 * loaded from then on, whoever frees it; a later start in this process is refused.
 */
void WINAPI tessaplug_cleanup(void);

/**
 * Receives the service's controls; the shape of a HandlerEx. Forward SERVICE_CONTROL_DEVICEEVENT and
 * SERVICE_CONTROL_POWEREVENT; every other control is ignored. Returns at once: device events are handled on
 * the plug-in's own thread. May be called on any thread, also while tessaplug_init or tessaplug_cleanup runs.
 *
 * @param control the control code
 * @param eventType the event type of the control
 * @param eventData the event data of the control, valid during the call; may be null
 * @param context the host's context; not interpreted
 * @return NO_ERROR, also if handling the control failed; 0xFFFFFFFF if the plug-in could not be reached
 */
DWORD WINAPI tessaplug_service_ctrl_handler(DWORD control, DWORD eventType, void* eventData, void* context);

#ifdef __cplusplus
}
#endif

#endif
