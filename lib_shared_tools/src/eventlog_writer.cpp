#include "eventlog_writer.h"

#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\eventlog_writer", "47b9e0d2-1f8a-4c9f-92c4-8d3e6b5a7c08",
             trace::kSharedTools);

namespace logger {
namespace {

constexpr wchar_t kApplicationLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application";

WORD EventLogTypeFrom(unsigned int level) {
    FUNCTION_TRACE();
    switch (level) {
        case 1:
            return EVENTLOG_INFORMATION_TYPE;
        case 2:
            return EVENTLOG_WARNING_TYPE;
        case 3:
            return EVENTLOG_ERROR_TYPE;
        default:
            MODUL_FAIL_AT(401, "Invalid EventType!");
            return 0;
    }
}

}  // namespace

EventLogProvider::EventLogProvider(std::wstring providerName, std::wstring eventMessageFile,
                                   std::unique_ptr<windows_api::Advapi32> advapi32)
    : providerName_(std::move(providerName)),
      eventMessageFile_(std::move(eventMessageFile)),
      advapi32_(std::move(advapi32)) {
    FUNCTION_TRACE();
    CheckParameters(providerName_, eventMessageFile_);
}

EventLogProvider::~EventLogProvider() {
    FUNCTION_TRACE();
    EventLogProvider::Unregister();
}

void EventLogProvider::CheckParameters(const std::wstring& ProviderName,
                                       const std::wstring& EventMessageFile) {
    FUNCTION_TRACE();
    if (ProviderName.empty()) MODUL_THROW(std::invalid_argument("ProviderName is empty."));
    if (ProviderName.length() >= MAX_PATH) MODUL_THROW(std::invalid_argument("ProviderName is >= MAX_PATH."));
    if (EventMessageFile.empty()) MODUL_THROW(std::invalid_argument("EventMessageFile is empty."));
    if (EventMessageFile.length() >= std::size_t{2} * MAX_PATH)
        MODUL_THROW(std::invalid_argument("EventMessageFile is >= (2*MAX_PATH)."));
}

void EventLogProvider::Register() {
    FUNCTION_TRACE();
    if (eventSource_ != nullptr) return;
    RegisterEventProvider(providerName_);
    eventSource_ = advapi32_->RegisterEventSourceW(nullptr, providerName_.c_str());
    if (eventSource_ != nullptr)
        TRACE_VERBOSE(10, "Event source %S registered", providerName_);
    else
        TRACE_ERROR(11, "RegisterEventSourceW(%s) failed, LE(%u)", toolbox::WstringToString(providerName_),
                    ::GetLastError());
}

void EventLogProvider::RegisterEventProvider(const std::wstring& ProviderName) {
    FUNCTION_TRACE();
    MODUL_ASSERT(!ProviderName.empty());
    const std::wstring path = std::wstring(kApplicationLogKey) + L"\\" + ProviderName;
    HKEY evlogKey = nullptr;
    DWORD disposition = 0;
    const LSTATUS result =
        advapi32_->RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_ALL_ACCESS, nullptr, &evlogKey, &disposition);
    if (result != ERROR_SUCCESS) {
        TRACE_WARNING(12, "RegCreateKeyExW(%S) failed with %d", path, result);
        return;
    }
    TRACE_INFO(13, "Key %S: disposition %u (1 new, 2 existing)", path, disposition);
    MODUL_ASSERT(evlogKey != nullptr);
    SubmitEventlogInfo(evlogKey, eventMessageFile_);
    const LSTATUS closed = advapi32_->RegCloseKey(evlogKey);
    if (closed != ERROR_SUCCESS) TRACE_WARNING(14, "RegCloseKey(%S) failed with %d", path, closed);
}

void EventLogProvider::SubmitEventlogInfo(HKEY key, const std::wstring& EventMessageFile) {
    FUNCTION_TRACE();
    if (!EventMessageFile.empty()) {
        // Without the terminating zero, as every installed station has it: the registry's readers add it.
        const DWORD size = static_cast<DWORD>(2 * EventMessageFile.length());
        const LSTATUS result =
            advapi32_->RegSetValueExW(key, L"EventMessageFile", 0, REG_EXPAND_SZ,
                                      reinterpret_cast<const BYTE*>(EventMessageFile.c_str()), size);
        if (result != ERROR_SUCCESS)
            TRACE_WARNING(15, "RegSetValueExW(EventMessageFile) failed with %d", result);
    }
    const DWORD typesSupported = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    const LSTATUS result =
        advapi32_->RegSetValueExW(key, L"TypesSupported", 0, REG_DWORD,
                                  reinterpret_cast<const BYTE*>(&typesSupported), sizeof typesSupported);
    if (result != ERROR_SUCCESS) TRACE_WARNING(16, "RegSetValueExW(TypesSupported) failed with %d", result);
}

void EventLogProvider::Unregister() {
    FUNCTION_TRACE();
    if (eventSource_ == nullptr) return;
    if (!advapi32_->DeregisterEventSource(eventSource_))
        TRACE_WARNING(17, "DeregisterEventSource() failed, LE(%u)", ::GetLastError());
    eventSource_ = nullptr;
}

void EventLogProvider::Report(WORD type, WORD category, DWORD eventId, WORD numberOfStrings,
                              const wchar_t** strings, DWORD dataSize, void* data) {
    FUNCTION_TRACE();
    if (eventSource_ == nullptr) {
        TRACE_ERROR(18, "Event 0x%x not reported: no event source", eventId);
        return;
    }
    if (type != EVENTLOG_ERROR_TYPE && type != EVENTLOG_WARNING_TYPE && type != EVENTLOG_INFORMATION_TYPE) {
        TRACE_ERROR(19, "Event 0x%x not reported: invalid type %u", eventId, type);
        return;
    }
    if (!advapi32_->ReportEventW(eventSource_, type, category, eventId, nullptr, numberOfStrings, dataSize,
                                 strings, data))
        TRACE_ERROR(20, "ReportEventW(0x%x) failed, LE(%u)", eventId, ::GetLastError());
}

EventLogWriter::EventLogWriter(std::shared_ptr<EventLogProvider> provider) : provider_(std::move(provider)) {
    FUNCTION_TRACE();
}

void EventLogWriter::Log(unsigned int level, unsigned int eventId) {
    FUNCTION_TRACE();
    const WORD type = EventLogTypeFrom(level);
    if (provider_ == nullptr) {
        TRACE_ERROR(21, "Event 0x%x not reported: no event log provider", eventId);
        return;
    }
    provider_->Report(type, 0, eventId);
}

}  // namespace logger
