/**
 * How user mode talks to the stand-in adapter drivers: plain C, for the driver and for its users.
 *
 * Each driver has a control device that can be opened whether an adapter is plugged in or not. Each installed
 * device is one of its ADAPTER_PORTS ports, an adapter in it one active interface of the model's class.
 */
#ifndef ADAPTER_PROTOCOL_H
#define ADAPTER_PROTOCOL_H

#define ADAPTER_PORTS 2

/** Names of the control devices, to be opened as \\.\NAME. */
#define ADAPTER_FENLU3_CONTROL L"TessaAdapterFenlu3"
#define ADAPTER_NX4120_CONTROL L"TessaAdapterNx4120"

/** Hardware identifiers under which the devices are installed. */
#define ADAPTER_FENLU3_HARDWARE_ID L"Root\\TessaFenlu3"
#define ADAPTER_NX4120_HARDWARE_ID L"Root\\TessaNx4120"

/** Plug an adapter in and out. Input: one 32-bit port number, 0 to ADAPTER_PORTS - 1. No output. */
#define IOCTL_ADAPTER_PLUG CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_ADAPTER_UNPLUG CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS)

/** The Fennlink U3's driver writes a record into the System event log. Input: an ADAPTER_REPORT. No output.
 */
#define IOCTL_ADAPTER_REPORT CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS)

#define ADAPTER_REPORT_TEXT 64

typedef struct {
    unsigned int severity;             /**< 1 information, 2 warning, 3 error */
    wchar_t text[ADAPTER_REPORT_TEXT]; /**< what happened, zero-terminated */
} ADAPTER_REPORT;

#endif
