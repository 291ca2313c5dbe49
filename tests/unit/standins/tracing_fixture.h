#pragma once

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "command.h"
#include "wine_gap_fixture.h"

/// Tests of event tracing: a session of the test's own, a provider in its process and the recording read
/// back.
namespace tracing_test {

inline constexpr GUID kControlGuid = {0x11223344, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
inline constexpr GUID kMessageGuid = {0x55667788, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
inline constexpr wchar_t kFile[] = L"C:\\windows\\temp\\wine_gap_test.etl";

struct Properties {
    EVENT_TRACE_PROPERTIES head = {};
    wchar_t name[64] = {};
    wchar_t file[64] = {};
    Properties() {
        head.Wnode.BufferSize = sizeof *this;
        head.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
        head.LogFileNameOffset = offsetof(Properties, file);
        head.LoggerNameOffset = offsetof(Properties, name);
        std::wcscpy(file, kFile);
    }
    EVENT_TRACE_PROPERTIES* Get() { return &head; }
    void SetMaximum(ULONG mode, ULONG kilobytes) {
        head.LogFileMode = mode | EVENT_TRACE_USE_KBYTES_FOR_SIZE;
        head.MaximumFileSize = kilobytes;
    }
};

/// What the provider's callback was last told.
struct Told {
    std::atomic<int> request = -1;
    TRACEHANDLE logger = 0;
    UCHAR level = 0;
    ULONG flags = 0;
};

inline ULONG WINAPI OnControl(WMIDPREQUESTCODE request, void* context, ULONG*, void* buffer) {
    auto& told = *static_cast<Told*>(context);
    told.logger = ::GetTraceLoggerHandle(buffer);
    told.level = ::GetTraceEnableLevel(told.logger);
    told.flags = ::GetTraceEnableFlags(told.logger);
    told.request = request;
    return ERROR_SUCCESS;
}

class Tracing : public WineGap {
  protected:
    Tracing() { Stop(); }
    ~Tracing() override {
        if (provider_ != 0) ::UnregisterTraceGuids(provider_);
        Stop();
    }
    void RegisterProvider() {
        TRACE_GUID_REGISTRATION registration = {&kControlGuid, nullptr};
        ASSERT_EQ(::RegisterTraceGuidsW(&OnControl, &told_, &kControlGuid, 1, &registration, nullptr, nullptr,
                                        &provider_),
                  0u);
    }
    void StartSession(Properties properties = {}) {
        ASSERT_EQ(::StartTraceW(&session_, L"wine_gap_test", properties.Get()), 0u);
        ASSERT_EQ(::EnableTrace(TRUE, 0x5, 4, &kControlGuid, session_), 0u);
    }
    static ULONG Stop() {
        return ::ControlTraceW(0, L"wine_gap_test", Properties().Get(), EVENT_TRACE_CONTROL_STOP);
    }
    struct Statistics {
        ULONG result;
        Properties properties;
    };
    static Statistics Query() {
        Properties properties;
        const ULONG result =
            ::ControlTraceW(0, L"wine_gap_test", properties.Get(), EVENT_TRACE_CONTROL_QUERY);
        return {result, properties};
    }
    /// @return whether it was recorded
    static bool Send(TRACEHANDLE session, const std::string& text) {
        return ::TraceMessage(session, 0x2B, &kMessageGuid, 17, text.data(), text.size(), nullptr) == 0;
    }
    static std::vector<std::string> Texts(std::vector<std::string> texts) { return texts; }
    bool IsTold(int request) {
        return test_support::Eventually([&] { return told_.request == request; });
    }

    Told told_;
    TRACEHANDLE provider_ = 0;
    TRACEHANDLE session_ = 0;
};

/// What was read back.
struct Recording {
    ULONG result = 0;
    std::vector<EVENT_RECORD> records;  ///< of messages, without their data
    std::vector<std::string> texts;     ///< their data
    std::vector<TRACE_LOGFILE_HEADER> headers;
    TRACE_LOGFILE_HEADER header = {};  ///< as the file was opened
};

inline void WINAPI OnRecord(EVENT_RECORD* record) {
    auto& recording = *static_cast<Recording*>(record->UserContext);
    if ((record->EventHeader.Flags & EVENT_HEADER_FLAG_TRACE_MESSAGE) == 0) {
        EXPECT_TRUE(recording.records.empty()) << "the head comes first";
        recording.headers.push_back(*static_cast<const TRACE_LOGFILE_HEADER*>(record->UserData));
        return;
    }
    recording.records.push_back(*record);
    recording.texts.emplace_back(static_cast<const char*>(record->UserData), record->UserDataLength);
}

inline Recording ReadBack(const FILETIME* start = nullptr, const FILETIME* end = nullptr) {
    Recording recording;
    EVENT_TRACE_LOGFILEW logFile = {};
    std::wstring file = kFile;
    logFile.LogFileName = file.data();
    logFile.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
    logFile.EventRecordCallback = &OnRecord;
    logFile.Context = &recording;
    TRACEHANDLE handle = ::OpenTraceW(&logFile);
    if (handle == INVALID_PROCESSTRACE_HANDLE) {
        recording.result = ::GetLastError();
        return recording;
    }
    recording.header = logFile.LogfileHeader;
    recording.result = ::ProcessTrace(&handle, 1, const_cast<FILETIME*>(start), const_cast<FILETIME*>(end));
    ::CloseTrace(handle);
    return recording;
}

}  // namespace tracing_test
