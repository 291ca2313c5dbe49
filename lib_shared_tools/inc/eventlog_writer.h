#pragma once

#include <memory>
#include <string>

#include "win_api.h"

/// The module as an event source of the Windows Application log.
namespace logger {

/// Writes the source's registration into the registry, opens the source and reports events. Apart from the
/// constructor nothing here throws: a failure to log is traced and never fails the caller.
class EventLogProvider {
  public:
    /// Registers nothing yet.
    /// @param providerName event source name, 1 to 259 characters
    /// @param eventMessageFile full path of the file with the source's message table, 1 to 519 characters
    /// @throws std::invalid_argument with a text that names the limit
    EventLogProvider(
        std::wstring providerName, std::wstring eventMessageFile,
        std::unique_ptr<windows_api::Advapi32> advapi32 = std::make_unique<windows_api::Advapi32>());
    virtual ~EventLogProvider();
    EventLogProvider(const EventLogProvider&) = delete;
    EventLogProvider& operator=(const EventLogProvider&) = delete;

    /// Registers the source in the registry and opens it; does nothing if it is open already.
    virtual void Register();
    /// Closes the source. Its registration in the registry stays, so that its entries can still be read.
    virtual void Unregister();
    /// Reports one event.
    /// @param type EVENTLOG_ERROR_TYPE, EVENTLOG_WARNING_TYPE or EVENTLOG_INFORMATION_TYPE
    /// @param strings `numberOfStrings` insertion strings, may be null if there are none
    /// @param data `dataSize` bytes of raw data, may be null if there are none
    virtual void Report(WORD type, WORD category, DWORD eventId, WORD numberOfStrings = 0,
                        const wchar_t** strings = nullptr, DWORD dataSize = 0, void* data = nullptr);

  private:
    static void CheckParameters(const std::wstring& ProviderName, const std::wstring& EventMessageFile);
    void RegisterEventProvider(const std::wstring& ProviderName);
    void SubmitEventlogInfo(HKEY key, const std::wstring& EventMessageFile);

    std::wstring providerName_;
    std::wstring eventMessageFile_;
    HANDLE eventSource_ = nullptr;
    std::unique_ptr<windows_api::Advapi32> advapi32_;
};

/// The front through which the module's event-log entry reports.
class EventLogWriter {
  public:
    explicit EventLogWriter(std::shared_ptr<EventLogProvider> provider);
    /// Reports an event without insertion strings or data.
    /// @param level 1 information, 2 warning, 3 error; any other raises an assertion and is reported as type
    /// 0
    void Log(unsigned int level, unsigned int eventId);

  private:
    std::shared_ptr<EventLogProvider> provider_;
};

}  // namespace logger
