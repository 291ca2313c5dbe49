/**
 * How a kernel driver leaves a record for the System event log where Wine has no error log for drivers. Plain
 * C, for the drivers and for the event log.
 */
#ifndef ERROR_LOG_RECORD_H
#define ERROR_LOG_RECORD_H

/** The key, for RtlWriteRegistryValue. Each value is one record, in the order of their names. */
#define ERROR_LOG_RECORDS_KEY L"\\Registry\\Machine\\Software\\winegap\\EventLog\\Kernel"

#define ERROR_LOG_MAX_TEXT 64

/** One record. Its first insertion string is the device's name, as Windows adds it, its second one `text`. */
typedef struct {
    unsigned int message_id; /**< its two top bits are the severity: 1 information, 2 warning, 3 error */
    wchar_t source[16];
    wchar_t device[ERROR_LOG_MAX_TEXT];
    wchar_t text[ERROR_LOG_MAX_TEXT];
} ERROR_LOG_RECORD;

#endif
