/*
 * Stand-in kernel driver of one adapter model. Each of its devices is a port with an interface of the model's
 * device interface class, which a control request activates ("plugged in") and deactivates. What follows is
 * the operating system's own road: enumeration shows the interface, and whoever registered is notified.
 *
 * Built once for each model, with ADAPTER_CONTROL and ADAPTER_INTERFACE_GUID defined by the build.
 */
#include <ntddk.h>

#include "adapter_protocol.h"
#include "error_log_record.h"
#ifdef ADAPTER_MESSAGES
#include ADAPTER_MESSAGES
#endif

static const GUID interface_class = ADAPTER_INTERFACE_GUID;

/* One installed device: a port, into which an adapter can be plugged. */
typedef struct {
    PDEVICE_OBJECT device;         /* null while the port has no device */
    PDEVICE_OBJECT lower;          /* next device of the stack */
    UNICODE_STRING interface_name; /* symbolic link of the device interface */
    BOOLEAN started;
    BOOLEAN plugged;
} PORT;

typedef struct {
    PORT* port; /* null for the control device */
} DEVICE_EXTENSION;

static PORT ports[ADAPTER_PORTS];
static KMUTEX ports_lock; /* guards the ports; not a fast mutex, under which interfaces cannot be set */
static PDEVICE_OBJECT control_device;
static UNICODE_STRING control_name = RTL_CONSTANT_STRING(L"\\Device\\" ADAPTER_CONTROL);
static UNICODE_STRING control_link = RTL_CONSTANT_STRING(L"\\DosDevices\\" ADAPTER_CONTROL);

static NTSTATUS complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

static void lock_ports(void) {
    KeWaitForSingleObject(&ports_lock, Executive, KernelMode, FALSE, NULL);
}

static void unlock_ports(void) {
    KeReleaseMutex(&ports_lock, FALSE);
}

static PORT* port_of(PDEVICE_OBJECT device) {
    return ((DEVICE_EXTENSION*)device->DeviceExtension)->port;
}

/* The lock is held. Plugging in what is plugged in already is harmless, and must not be reported twice. */
static NTSTATUS set_plugged(PORT* port, BOOLEAN plugged) {
    NTSTATUS status;
    if (!port->started) return STATUS_DEVICE_NOT_READY;
    if (port->plugged == plugged) return STATUS_SUCCESS;
    status = IoSetDeviceInterfaceState(&port->interface_name, plugged);
    if (NT_SUCCESS(status)) port->plugged = plugged;
    return status;
}

static void set_started(PORT* port, BOOLEAN started) {
    lock_ports();
    if (!started && port->started) set_plugged(port, FALSE);
    port->started = started;
    unlock_ports();
}

static PORT* claim_port(PDEVICE_OBJECT device) {
    PORT* claimed = NULL;
    ULONG i;
    lock_ports();
    for (i = 0; i < ADAPTER_PORTS && !claimed; ++i) {
        if (ports[i].device) continue;
        claimed = &ports[i];
        RtlZeroMemory(claimed, sizeof *claimed);
        claimed->device = device;
    }
    unlock_ports();
    return claimed;
}

static void release_port(PORT* port) {
    lock_ports();
    if (port->interface_name.Buffer) RtlFreeUnicodeString(&port->interface_name);
    RtlZeroMemory(port, sizeof *port);
    unlock_ports();
}

static NTSTATUS build_port(PORT* port, PDEVICE_OBJECT physical) {
    NTSTATUS status = IoRegisterDeviceInterface(physical, &interface_class, NULL, &port->interface_name);
    if (!NT_SUCCESS(status)) return status;
    port->lower = IoAttachDeviceToDeviceStack(port->device, physical);
    return port->lower ? STATUS_SUCCESS : STATUS_NO_SUCH_DEVICE;
}

static NTSTATUS NTAPI add_device(PDRIVER_OBJECT driver, PDEVICE_OBJECT physical) {
    PDEVICE_OBJECT device = NULL;
    PORT* port;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(DEVICE_EXTENSION), NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    port = claim_port(device);
    status = port ? build_port(port, physical) : STATUS_INSUFFICIENT_RESOURCES;
    if (!NT_SUCCESS(status)) {
        if (port) release_port(port);
        IoDeleteDevice(device);
        return status;
    }
    ((DEVICE_EXTENSION*)device->DeviceExtension)->port = port;
    device->Flags &= ~(ULONG)DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

static NTSTATUS pass_down(PDEVICE_OBJECT lower, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lower, irp);
}

static NTSTATUS NTAPI signal_completion(PDEVICE_OBJECT device, PIRP irp, PVOID completed) {
    UNREFERENCED_PARAMETER(device);
    if (irp->PendingReturned) KeSetEvent(completed, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

/* The port is started once everything below it is. */
static NTSTATUS start_device(PORT* port, PIRP irp) {
    KEVENT completed;
    NTSTATUS status;
    KeInitializeEvent(&completed, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, signal_completion, &completed, TRUE, TRUE, TRUE);
    status = IoCallDriver(port->lower, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&completed, Executive, KernelMode, FALSE, NULL);
        status = irp->IoStatus.Status;
    }
    if (NT_SUCCESS(status)) set_started(port, TRUE);
    return complete(irp, status);
}

static NTSTATUS remove_device(PDEVICE_OBJECT device, PORT* port, PIRP irp) {
    PDEVICE_OBJECT lower = port->lower;
    NTSTATUS status;
    set_started(port, FALSE);
    irp->IoStatus.Status = STATUS_SUCCESS;
    status = pass_down(lower, irp);
    IoDetachDevice(lower);
    release_port(port);
    IoDeleteDevice(device);
    return status;
}

static NTSTATUS NTAPI dispatch_pnp(PDEVICE_OBJECT device, PIRP irp) {
    PORT* port = port_of(device);
    if (!port) return complete(irp, STATUS_NOT_SUPPORTED);
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
        case IRP_MN_START_DEVICE:
            return start_device(port, irp);
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
            set_started(port, FALSE);
            irp->IoStatus.Status = STATUS_SUCCESS;
            break;
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
            irp->IoStatus.Status = STATUS_SUCCESS;
            break;
        case IRP_MN_REMOVE_DEVICE:
            return remove_device(device, port, irp);
        default:
            break;
    }
    return pass_down(port->lower, irp);
}

static NTSTATUS NTAPI dispatch_system_control(PDEVICE_OBJECT device, PIRP irp) {
    PORT* port = port_of(device);
    return port ? pass_down(port->lower, irp) : complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

static NTSTATUS NTAPI dispatch_open_close(PDEVICE_OBJECT device, PIRP irp) {
    UNREFERENCED_PARAMETER(device);
    return complete(irp, STATUS_SUCCESS);
}

static NTSTATUS set_port(ULONG number, BOOLEAN plugged) {
    NTSTATUS status;
    if (number >= ADAPTER_PORTS) return STATUS_INVALID_PARAMETER;
    lock_ports();
    status = set_plugged(&ports[number], plugged);
    unlock_ports();
    return status;
}

#ifdef ADAPTER_MESSAGES
static ULONG message_of(ULONG severity) {
    switch (severity) {
        case 1:
            return (ULONG)FENLU3_INFORMATION;
        case 2:
            return (ULONG)FENLU3_WARNING;
        case 3:
            return (ULONG)FENLU3_ERROR;
        default:
            return 0;
    }
}

static BOOLEAN is_wine(void) {
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"wine_ntoskrnl_main_loop");
    return MmGetSystemRoutineAddress(&name) != NULL;
}

static void write_hex(WCHAR* digits, ULONG count, ULONGLONG number) {
    for (; count > 0; --count, number /= 16)
        digits[count - 1] = L"0123456789abcdef"[number % 16];
}

/* Wine has no error log for drivers: what reads the event log there takes the record from the registry. */
static NTSTATUS leave_record(ULONG message_id, const WCHAR* text) {
    static const WCHAR* const keys[] = {L"\\Registry\\Machine\\Software\\winegap",
                                        L"\\Registry\\Machine\\Software\\winegap\\EventLog",
                                        ERROR_LOG_RECORDS_KEY};
    static LONG records;
    ERROR_LOG_RECORD record;
    WCHAR name[] = L"0000000000000000 00000000 " ADAPTER_SOURCE;
    LARGE_INTEGER now;
    ULONG i;
    RtlZeroMemory(&record, sizeof record);
    record.message_id = message_id;
    RtlCopyMemory(record.source, ADAPTER_SOURCE, sizeof ADAPTER_SOURCE);
    RtlCopyMemory(record.device, control_name.Buffer, control_name.Length);
    RtlCopyMemory(record.text, text, sizeof record.text);
    /* The time first: records that nobody has looked at yet may be from before this driver was loaded. */
    KeQuerySystemTime(&now);
    write_hex(name, 16, (ULONGLONG)now.QuadPart);
    write_hex(name + 17, 8, (ULONG)InterlockedIncrement(&records));
    for (i = 0; i < sizeof keys / sizeof keys[0]; ++i)
        RtlCreateRegistryKey(RTL_REGISTRY_ABSOLUTE, (PWSTR)keys[i]);
    return RtlWriteRegistryValue(RTL_REGISTRY_ABSOLUTE, ERROR_LOG_RECORDS_KEY, name, REG_BINARY, &record,
                                 sizeof record);
}

static NTSTATUS report(const ADAPTER_REPORT* request) {
    const ULONG message_id = message_of(request->severity);
    const USHORT offset = FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData);
    WCHAR text[ADAPTER_REPORT_TEXT];
    PIO_ERROR_LOG_PACKET packet;
    if (!message_id) return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(text, request->text, sizeof text);
    text[ADAPTER_REPORT_TEXT - 1] = 0;
    if (is_wine()) return leave_record(message_id, text);
    packet = IoAllocateErrorLogEntry(control_device, (UCHAR)(offset + sizeof text));
    if (!packet) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(packet, offset + sizeof text);
    packet->ErrorCode = (NTSTATUS)message_id;
    packet->NumberOfStrings = 1;
    packet->StringOffset = offset;
    RtlCopyMemory((UCHAR*)packet + offset, text, sizeof text);
    IoWriteErrorLogEntry(packet);
    return STATUS_SUCCESS;
}
#else
static NTSTATUS report(const ADAPTER_REPORT* request) {
    UNREFERENCED_PARAMETER(request);
    return STATUS_NOT_SUPPORTED;
}
#endif

static NTSTATUS NTAPI dispatch_control(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    const ULONG size = stack->Parameters.DeviceIoControl.InputBufferLength;
    const void* input = irp->AssociatedIrp.SystemBuffer;
    if (device != control_device) return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    switch (code) {
        case IOCTL_ADAPTER_PLUG:
        case IOCTL_ADAPTER_UNPLUG:
            if (size != sizeof(ULONG)) return complete(irp, STATUS_INFO_LENGTH_MISMATCH);
            return complete(irp, set_port(*(const ULONG*)input, code == IOCTL_ADAPTER_PLUG));
        case IOCTL_ADAPTER_REPORT:
            if (size != sizeof(ADAPTER_REPORT)) return complete(irp, STATUS_INFO_LENGTH_MISMATCH);
            return complete(irp, report(input));
        default:
            return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

static NTSTATUS NTAPI dispatch_power(PDEVICE_OBJECT device, PIRP irp) {
    PORT* port = port_of(device);
    if (!port) return complete(irp, STATUS_SUCCESS);
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(port->lower, irp);
}

static void NTAPI unload(PDRIVER_OBJECT driver) {
    UNREFERENCED_PARAMETER(driver);
    IoDeleteSymbolicLink(&control_link);
    IoDeleteDevice(control_device);
}

static NTSTATUS create_control_device(PDRIVER_OBJECT driver) {
    NTSTATUS status = IoCreateDevice(driver, sizeof(DEVICE_EXTENSION), &control_name, FILE_DEVICE_UNKNOWN, 0,
                                     FALSE, &control_device);
    if (!NT_SUCCESS(status)) return status;
    status = IoCreateSymbolicLink(&control_link, &control_name);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(control_device);
        return status;
    }
    control_device->Flags &= ~(ULONG)DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path) {
    UNREFERENCED_PARAMETER(registry_path);
    KeInitializeMutex(&ports_lock, 0);
    driver->DriverExtension->AddDevice = add_device;
    driver->DriverUnload = unload;
    driver->MajorFunction[IRP_MJ_PNP] = dispatch_pnp;
    driver->MajorFunction[IRP_MJ_POWER] = dispatch_power;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = dispatch_system_control;
    driver->MajorFunction[IRP_MJ_CREATE] = dispatch_open_close;
    driver->MajorFunction[IRP_MJ_CLOSE] = dispatch_open_close;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatch_control;
    return create_control_device(driver);
}
