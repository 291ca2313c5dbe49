#include <algorithm>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "log_device_store.h"

// The configuration library: four exports over the store. Lengths are in characters: on entry the room in the
// buffer, its terminating zero included; on success the length of the text without it; where the buffer is
// too short the room that is needed.
namespace {

using configuration_library::LogDeviceStore;

DWORD CopyOut(const std::wstring& text, wchar_t* buffer, DWORD* length) {
    const DWORD needed = static_cast<DWORD>(text.length() + 1);
    if (*length < needed) {
        *length = needed;
        return configuration_library::kBufferTooShort;
    }
    std::ranges::copy(text, buffer);
    buffer[text.length()] = L'\0';
    *length = needed - 1;
    return configuration_library::kOk;
}

/// The template as it was read last. Whoever lists it asks for one entry after the other: all of it read
/// again for each would make a list of twice the length cost four times as much.
class KeptTemplate {
  public:
    std::optional<std::wstring> Entry(DWORD index) {
        const LogDeviceStore store;
        const std::lock_guard guard(lock_);
        const ULONGLONG written = store.TemplateWritten();
        if (written == 0 || written != written_ || store.LogDevicesKey() != store_) {
            store_ = store.LogDevicesKey();
            entries_ = store.TemplateEntries();
            written_ = IsLongAgo(written) ? written : 0;
        }
        return index < entries_.size() ? std::optional(entries_[index]) : std::nullopt;
    }

  private:
    /// Whether another write would show in the time, which Windows counts in ticks of up to 16 ms.
    static bool IsLongAgo(ULONGLONG written) {
        constexpr ULONGLONG kIntervals = 500'000;  // of 100 ns: 50 ms
        FILETIME now = {};
        ::GetSystemTimeAsFileTime(&now);
        const ULONGLONG time = (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
        return time > written + kIntervals;
    }

    std::mutex lock_;  // guards the rest
    std::wstring store_;
    ULONGLONG written_ = 0;
    std::vector<std::wstring> entries_;
} keptTemplate;

/// Nothing is thrown across the exports.
template <typename Call>
DWORD Guarded(Call call) {
    try {
        return call();
    } catch (...) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

}  // namespace

extern "C" {

DWORD WINAPI LogDeviceExists(const wchar_t* logDevice, DWORD flags) {
    constexpr DWORD kKnownFlags = 0xF;
    if (logDevice == nullptr || (flags & ~kKnownFlags) != 0) return configuration_library::kInvalidParameters;
    return Guarded([&]() -> DWORD { return LogDeviceStore().Exists(logDevice); });
}

DWORD WINAPI LogDeviceGetValue(const wchar_t* logDevice, const wchar_t* parameter, wchar_t* value,
                               DWORD* valueLength) {
    if (logDevice == nullptr || parameter == nullptr || value == nullptr || valueLength == nullptr)
        return configuration_library::kInvalidParameters;
    return Guarded([&]() -> DWORD {
        std::wstring text;
        const DWORD code = LogDeviceStore().GetValue(logDevice, parameter, text);
        return code == configuration_library::kOk ? CopyOut(text, value, valueLength) : code;
    });
}

DWORD WINAPI LogDeviceSetNdiValue(const wchar_t* logDevice, const wchar_t* parameter, const wchar_t* value) {
    if (logDevice == nullptr || parameter == nullptr || value == nullptr)
        return configuration_library::kInvalidParameters;
    return Guarded([&]() -> DWORD { return LogDeviceStore().SetNdiValue(logDevice, parameter, value); });
}

DWORD WINAPI TemplateGetEnum(const wchar_t* templateType, DWORD index, wchar_t* name, DWORD* nameLength) {
    if (templateType == nullptr || name == nullptr || nameLength == nullptr)
        return configuration_library::kInvalidParameters;
    return Guarded([&]() -> DWORD {
        if (std::wstring(templateType) != L"DefaultLogDevices")
            return configuration_library::kInvalidParameters;
        const auto entry = keptTemplate.Entry(index);
        return entry ? CopyOut(*entry, name, nameLength) : configuration_library::kNoMoreItems;
    });
}

}  // extern "C"
