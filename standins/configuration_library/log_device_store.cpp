#include "log_device_store.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "machine_lock.h"

namespace configuration_library {
namespace {

constexpr wchar_t kComplete[] = L"(complete)";
constexpr wchar_t kEntries[] = L"Entries";
constexpr wchar_t kNdiFlags[] = L"NdiFlags";
constexpr wchar_t kLockName[] = L"Global\\VALDORN_LOG_DEVICE_STORE";

struct KeyCloser {
    void operator()(HKEY key) const { ::RegCloseKey(key); }
};
using Key = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

/// Held by whoever writes. What a writer that died leaves is recognised as incomplete.
class WriterLock : MachineLock {
  public:
    WriterLock() : MachineLock(kLockName) {}
};

std::wstring Upper(std::wstring text) {
    ::CharUpperBuffW(text.data(), static_cast<DWORD>(text.length()));
    return text;
}

Key Open(const std::wstring& path, REGSAM access, LSTATUS& result) {
    HKEY key = nullptr;
    result = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key);
    return Key(result == ERROR_SUCCESS ? key : nullptr);
}

Key Create(const std::wstring& path, LSTATUS& result) {
    HKEY key = nullptr;
    result = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                               nullptr);
    return Key(result == ERROR_SUCCESS ? key : nullptr);
}

/// What a registry error means where a key that is not there means `notFound`.
Code CodeOf(LSTATUS result, Code notFound) {
    switch (result) {
        case ERROR_SUCCESS:
            return kOk;
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_KEY_DELETED:  // by another process, meanwhile
            return notFound;
        default:
            return kAccessDenied;
    }
}

std::optional<std::wstring> Text(HKEY key, const std::wstring& name) {
    std::wstring text(1024, L'\0');
    for (;;) {
        DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        const LSTATUS result = ::RegGetValueW(key, nullptr, name.c_str(), RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ,
                                              nullptr, text.data(), &size);
        if (result == ERROR_MORE_DATA) {
            text.resize(std::max<std::size_t>(size / sizeof(wchar_t), text.size() * 2));
            continue;
        }
        if (result != ERROR_SUCCESS) return std::nullopt;
        text.resize(size / sizeof(wchar_t) - 1);  // without the terminating zero
        return text;
    }
}

std::vector<std::wstring> Texts(HKEY key, const wchar_t* name) {
    std::vector<std::wstring> texts;
    const std::wstring all = Text(key, name).value_or(L"");
    for (std::size_t start = 0; start < all.length();) {
        const std::size_t end = std::min(all.find(L'\0', start), all.length());
        if (end > start) texts.push_back(all.substr(start, end - start));
        start = end + 1;
    }
    return texts;
}

LSTATUS Write(HKEY key, const std::wstring& name, const std::wstring& text, DWORD type = REG_SZ) {
    return ::RegSetValueExW(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                            static_cast<DWORD>((text.length() + 1) * sizeof(wchar_t)));
}

LSTATUS WriteTexts(HKEY key, const wchar_t* name, const std::vector<std::wstring>& texts) {
    std::wstring all;
    for (const std::wstring& text : texts)
        all += text + L'\0';
    return Write(key, name, all, REG_MULTI_SZ);
}

bool IsValidName(const std::wstring& name, std::size_t maxLength) {
    return !name.empty() && name.length() <= maxLength && name.find(L'\\') == std::wstring::npos;
}

bool IsValidParameter(const std::wstring& name) {
    return IsValidName(name, kMaxParameterName) && ::_wcsicmp(name.c_str(), kComplete) != 0;
}

}  // namespace

LogDeviceStore::LogDeviceStore(std::wstring root) : root_(std::move(root)) {}

std::wstring LogDeviceStore::DefaultRoot() {
    wchar_t root[256] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"Q5ORVIX_ROOT", root, ARRAYSIZE(root));
    return length > 0 && length < ARRAYSIZE(root) ? root : L"SOFTWARE\\VALDORN\\TORUX";
}

Code LogDeviceStore::Initialise() const {
    const WriterLock lock;
    LSTATUS result = ERROR_SUCCESS;
    const Key logDevices = configuration_library::Create(LogDevicesKey(), result);
    if (!logDevices) return kAccessDenied;
    const Key definition = configuration_library::Create(DefinitionKey(), result);
    if (!definition) return kAccessDenied;
    if (Text(definition.get(), kNdiFlags)) return kOk;
    if (WriteTexts(definition.get(), kEntries, {}) != ERROR_SUCCESS) return kAccessDenied;
    return CodeOf(WriteTexts(definition.get(), kNdiFlags, {L"hidden"}), kAccessDenied);
}

Code LogDeviceStore::Wipe() const {
    const WriterLock lock;
    for (const std::wstring& path : {LogDevicesKey(), DefinitionKey()}) {
        const Code code = CodeOf(::RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str()), kOk);
        if (code != kOk) return code;
    }
    return kOk;
}

Code LogDeviceStore::Check(const std::wstring& logDevice) const {
    if (!IsValidName(logDevice, kMaxLogDeviceName)) return kInvalidParameters;
    LSTATUS result = ERROR_SUCCESS;
    Open(LogDevicesKey(), KEY_READ, result);
    return CodeOf(result, kDefinitionNotExists);
}

Code LogDeviceStore::Exists(const std::wstring& logDevice) const {
    if (const Code code = Check(logDevice); code != kOk) return code;
    LSTATUS result = ERROR_SUCCESS;
    const Key key = Open(LogDevicesKey() + L"\\" + Upper(logDevice), KEY_READ, result);
    if (!key) return CodeOf(result, kLogDeviceNotExists);
    return Text(key.get(), kComplete) ? kOk : kLogDeviceNotExists;
}

Code LogDeviceStore::Create(const std::wstring& logDevice, const Parameters& parameters) const {
    for (const auto& parameter : parameters)
        if (!IsValidParameter(parameter.first)) return kInvalidParameters;
    const WriterLock lock;
    const Code exists = Exists(logDevice);
    if (exists == kOk) return kInvalidParameters;
    if (exists != kLogDeviceNotExists) return exists;
    const std::wstring path = LogDevicesKey() + L"\\" + Upper(logDevice);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());  // what an interrupted creation may have left
    LSTATUS result = ERROR_SUCCESS;
    const Key key = configuration_library::Create(path, result);
    if (!key) return kAccessDenied;
    for (const auto& [name, value] : parameters)
        if (Write(key.get(), name, value) != ERROR_SUCCESS) return kAccessDenied;
    return CodeOf(Write(key.get(), kComplete, L"1"), kAccessDenied);
}

Code LogDeviceStore::Delete(const std::wstring& logDevice) const {
    const WriterLock lock;
    if (const Code code = Exists(logDevice); code != kOk) return code;
    const std::wstring path = LogDevicesKey() + L"\\" + Upper(logDevice);
    LSTATUS result = ERROR_SUCCESS;
    Key key = Open(path, KEY_ALL_ACCESS, result);
    if (!key) return CodeOf(result, kLogDeviceNotExists);
    result = ::RegDeleteValueW(key.get(), kComplete);
    key.reset();
    if (result == ERROR_SUCCESS) result = ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
    return CodeOf(result, kLogDeviceNotExists);
}

std::vector<std::wstring> LogDeviceStore::LogDevices() const {
    std::vector<std::wstring> names;
    LSTATUS result = ERROR_SUCCESS;
    const Key root = Open(LogDevicesKey(), KEY_READ, result);
    if (!root) return names;
    wchar_t name[kMaxLogDeviceName + 1] = {};
    for (DWORD index = 0;; ++index) {
        DWORD length = ARRAYSIZE(name);
        if (::RegEnumKeyExW(root.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS)
            break;
        if (Exists(name) == kOk) names.emplace_back(name);
    }
    return names;
}

Code LogDeviceStore::GetValue(const std::wstring& logDevice, const std::wstring& parameter,
                              std::wstring& value) const {
    if (!IsValidParameter(parameter)) return kInvalidParameters;
    if (const Code code = Exists(logDevice); code != kOk) return code;
    LSTATUS result = ERROR_SUCCESS;
    const Key key = Open(LogDevicesKey() + L"\\" + Upper(logDevice), KEY_READ, result);
    if (!key) return CodeOf(result, kLogDeviceNotExists);
    std::optional<std::wstring> text = Text(key.get(), parameter);
    if (!text) return kParameterNotExists;
    if (text->starts_with(L'@')) {
        text = Text(key.get(), text->substr(1));
        if (!text) return kParameterLinkNotFound;
    }
    if (text->empty()) {
        const Key definition = Open(DefinitionKey(), KEY_READ, result);
        if (definition) text = Text(definition.get(), parameter);
        if (!definition || !text) return kParameterDefaultNotFound;
    }
    value = *text;
    return kOk;
}

Code LogDeviceStore::SetValue(const std::wstring& logDevice, const std::wstring& parameter,
                              const std::wstring& value) const {
    if (!IsValidParameter(parameter)) return kInvalidParameters;
    const WriterLock lock;
    if (const Code code = Exists(logDevice); code != kOk) return code;
    LSTATUS result = ERROR_SUCCESS;
    const Key key = Open(LogDevicesKey() + L"\\" + Upper(logDevice), KEY_SET_VALUE, result);
    if (!key) return CodeOf(result, kLogDeviceNotExists);
    return CodeOf(Write(key.get(), parameter, value), kLogDeviceNotExists);
}

Code LogDeviceStore::SetNdiValue(const std::wstring& logDevice, const std::wstring& parameter,
                                 const std::wstring& value) const {
    if (value != L"true" && value != L"false") return kInvalidParameters;
    LSTATUS result = ERROR_SUCCESS;
    const Key definition = Open(DefinitionKey(), KEY_READ, result);
    if (!definition) return CodeOf(result, kDefinitionNotExists);
    const auto flags = Texts(definition.get(), kNdiFlags);
    if (std::ranges::find(flags, parameter) == flags.end()) return kParameterDescNotFound;
    return SetValue(logDevice, parameter, value);
}

std::vector<std::wstring> LogDeviceStore::TemplateEntries() const {
    LSTATUS result = ERROR_SUCCESS;
    const Key definition = Open(DefinitionKey(), KEY_READ, result);
    return definition ? Texts(definition.get(), kEntries) : std::vector<std::wstring>();
}

ULONGLONG LogDeviceStore::TemplateWritten() const {
    LSTATUS result = ERROR_SUCCESS;
    const Key definition = Open(DefinitionKey(), KEY_READ, result);
    FILETIME written = {};
    if (definition)
        ::RegQueryInfoKeyW(definition.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, nullptr, &written);
    return (static_cast<ULONGLONG>(written.dwHighDateTime) << 32) | written.dwLowDateTime;
}

Code LogDeviceStore::SetTemplateEntries(const std::vector<std::wstring>& entries) const {
    return EditTemplateEntries([&entries](std::vector<std::wstring>& all) { all = entries; });
}

Code LogDeviceStore::EditTemplateEntries(const std::function<void(std::vector<std::wstring>&)>& edit) const {
    const WriterLock lock;
    LSTATUS result = ERROR_SUCCESS;
    const Key definition = Open(DefinitionKey(), KEY_READ | KEY_SET_VALUE, result);
    if (!definition) return CodeOf(result, kDefinitionNotExists);
    if (!Text(definition.get(), kEntries)) return kAccessDenied;
    std::vector<std::wstring> entries = Texts(definition.get(), kEntries);
    edit(entries);
    return CodeOf(WriteTexts(definition.get(), kEntries, entries), kDefinitionNotExists);
}

}  // namespace configuration_library
