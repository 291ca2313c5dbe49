#include "logdevice_db.h"

#include <algorithm>
#include <cctype>
#include <cwchar>
#include <cwctype>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\logdevice_db", "b3e7a5c1-4d60-4f89-a2b8-9c1d7e0f5a0d",
             trace::kLogDeviceConfiguration);

namespace korvane {
namespace {

constexpr std::size_t kMaxNameLength = 128;
constexpr char kDigits[] = "0123456789";

std::string Trimmed(const std::string& text) {
    FUNCTION_TRACE();
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// Names and entries of two lines are of no known format.
template <typename Char>
bool IsOneLine(const std::basic_string<Char>& text) {
    FUNCTION_TRACE();
    constexpr Char kLineEnds[] = {'\n', '\r', '\0'};
    return text.find_first_of(kLineEnds) == std::basic_string<Char>::npos;
}

/// Anything, an opening parenthesis, anything, a closing one.
bool IsClassicLogName(const std::string& normalised) {
    FUNCTION_TRACE();
    return IsOneLine(normalised) && normalised.ends_with(')') &&
           normalised.find('(') < normalised.length() - 1;
}

/// Anything, a dot, anything, a dot, a digit.
bool IsNewLogName(const std::string& normalised) {
    FUNCTION_TRACE();
    const std::size_t length = normalised.length();
    return length >= 3 && IsOneLine(normalised) && normalised.find_last_of(kDigits) == length - 1 &&
           normalised[length - 2] == '.' && normalised.find('.') < length - 2;
}

/// Each 8-bit character widened.
std::wstring Widened(const std::string& text) {
    FUNCTION_TRACE();
    std::wstring wide;
    for (const char c : text)
        wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    return wide;
}

}  // namespace

LogDeviceName::LogDeviceName(const std::string& name) : logName_(name) {
    FUNCTION_TRACE();
    Validate(logName_);
}

void LogDeviceName::Validate(const std::string& name) {
    FUNCTION_TRACE();
    const std::string normalised = PreProcessValue(name);
    // In this order: A.B(C) is a classic name, not a new one.
    isTempLog_ = IsTemporaryLogName(normalised);
    classicName_ = !isTempLog_ && IsClassicLogName(normalised);
    if (isTempLog_) {
        TRACE_VERBOSE(10, "%s is a temporary name", normalised);
    } else if (classicName_) {
        TRACE_VERBOSE(11, "%s is a classic name", normalised);
    } else if (IsNewLogName(normalised)) {
        TRACE_VERBOSE(12, "%s is a new name", normalised);
    } else {
        unknownFormat_ = true;
        MODUL_ASSERT(!isTempLog_ && !classicName_);
        TRACE_WARNING(13, "%s is a name of unknown format", normalised);
        return;
    }
    logName_ = normalised;
}

std::string LogDeviceName::PreProcessValue(const std::string& name) {
    FUNCTION_TRACE();
    if (name.empty()) MODUL_THROW(std::invalid_argument("LogDeviceName is empty!"));
    if (name.length() >= kMaxNameLength) MODUL_THROW(std::invalid_argument("LogDeviceName is >= 128 !"));
    std::string upper = name;
    std::ranges::transform(upper, upper.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string normalised = Trimmed(upper);
    if (normalised.starts_with('/')) normalised.erase(0, 1);
    const std::size_t lastSlash = normalised.rfind('/');
    if (lastSlash != std::string::npos) normalised.erase(lastSlash);
    TRACE_VERBOSE(14, "%s normalised to %s", name, normalised);
    return normalised;
}

bool LogDeviceName::IsTemporaryLogName(const std::string& normalised) {
    FUNCTION_TRACE();
    constexpr std::string_view kTemporary = "LDCF_TEMP_LOG_DEVICE";
    constexpr std::string_view kSeparator = "____";
    if (!normalised.starts_with(kTemporary) || !IsOneLine(normalised)) return false;
    const std::string number = normalised.substr(kTemporary.length());
    if (!number.starts_with(kSeparator) ||
        number.find_first_not_of(kDigits, kSeparator.length()) != std::string::npos) {
        TRACE_ERROR(15, "%s is no valid temporary name", normalised);
        MODUL_THROW(std::invalid_argument("Invalid temporary LogDevName"));
    }
    return true;
}

std::string LogDeviceName::GetLogNameA() const {
    FUNCTION_TRACE();
    if (isTempLog_ || unknownFormat_) {
        MODUL_ASSERT(!classicName_);
        return logName_;
    }
    std::string name = logName_;
    if (!classicName_) return name;
    name[name.find('(')] = '.';
    const std::size_t closing = name.find(')');
    name[closing] = '.';
    // A name with a ')' before its last character loses the character behind it: names are stored so.
    if (closing + 1 == name.length())
        name += '1';
    else
        name[closing + 1] = '1';
    TRACE_INFO(16, "%s in the new spelling: %s", logName_, name);
    return name;
}

std::wstring LogDeviceName::GetLogName() const {
    FUNCTION_TRACE();
    return Widened(GetLogNameA());
}

std::string LogDeviceName::GetLogNameClassicA() const {
    FUNCTION_TRACE();
    if (!classicName_ && !isTempLog_ && !unknownFormat_) {
        MODUL_THROW(
            std::runtime_error("LogDevice Name is neither classic format e.g. NX4120(Xli) nor temporary e.g. "
                               "LDCF_TEMP_LOG_DEVICE____!"));
    }
    return logName_;
}

std::wstring LogDeviceName::GetLogNameClassic() const {
    FUNCTION_TRACE();
    return Widened(GetLogNameClassicA());
}

LogDeviceDatabaseOrvix::LogDeviceDatabaseOrvix(std::unique_ptr<quelm::Q5orvixIf> library,
                                               std::shared_ptr<LogDeviceName> name)
    : library_(std::move(library)), name_(std::move(name)) {
    FUNCTION_TRACE();
    library_->LoadLib();
}

std::wstring LogDeviceDatabaseOrvix::ReadStringParameter(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    constexpr DWORD tmpBufLenOrg = 520;
    constexpr DWORD kMaxValueLength = 516;
    if (parameterName.empty()) MODUL_THROW(std::invalid_argument("ParameterName is EMPTY"));
    wchar_t tmpBuf[tmpBufLenOrg] = {};
    DWORD tmpBufLen = kMaxValueLength;
    const std::wstring logDevice = name_->GetLogName();
    const DWORD code =
        library_->LogDeviceGetValue(logDevice.c_str(), parameterName.c_str(), tmpBuf, &tmpBufLen);
    if (code != quelm::LDCF_OK) {
        TRACE_ERROR(17, "Parameter %S of %S: %s", parameterName, logDevice,
                    library_->GetReturnCodeName(code));
        MODUL_THROW(std::runtime_error("LogDeviceGetValue() FAILED!"));
    }
    MODUL_ASSERT(tmpBufLen < tmpBufLenOrg);
    const std::size_t length = ::wcsnlen(tmpBuf, tmpBufLenOrg);
    if (length >= kMaxValueLength) MODUL_FAIL("LogDeviceGetValue() HEAP-Corruption!");
    return {tmpBuf, length};
}

unsigned long LogDeviceDatabaseOrvix::ReadParameter(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    const std::wstring text = ReadStringParameter(parameterName);
    errno = 0;
    wchar_t* end = nullptr;
    const unsigned long value = std::wcstoul(text.c_str(), &end, 10);
    if (end == text.c_str()) MODUL_THROW(std::invalid_argument("invalid stoul argument"));
    if (errno == ERANGE) MODUL_THROW(std::out_of_range("stoul argument out of range"));
    return value;
}

std::wstring LogDeviceDatabaseOrvix::ReadStringParameterNdi(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    return ReadStringParameter(parameterName);
}

unsigned long LogDeviceDatabaseOrvix::ReadParameterNdi(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    return ReadParameter(parameterName);
}

void LogDeviceDatabaseOrvix::DisableFlagNdi(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    WriteParameterInternal(parameterName, L"false");
}

void LogDeviceDatabaseOrvix::EnableFlagNdi(const std::wstring& parameterName) {
    FUNCTION_TRACE();
    WriteParameterInternal(parameterName, L"true");
}

void LogDeviceDatabaseOrvix::WriteParameterInternal(const std::wstring& parameterName,
                                                    const std::wstring& value) {
    FUNCTION_TRACE();
    if (parameterName.empty()) MODUL_THROW(std::invalid_argument("ParameterName is EMPTY"));
    if (parameterName.length() > MAX_PATH) MODUL_THROW(std::invalid_argument("ParameterName is > MAX_PATH"));
    if (value != L"true" && value != L"false")
        MODUL_THROW(std::invalid_argument("Only supporting NDI Flags (true||false)"));
    const std::wstring logDevice = name_->GetLogName();
    const DWORD code =
        library_->LogDeviceSetNdiValue(logDevice.c_str(), parameterName.c_str(), value.c_str());
    if (code != quelm::LDCF_OK) {
        TRACE_ERROR(18, "Parameter %S of %S: %s", parameterName, logDevice,
                    library_->GetReturnCodeName(code));
        MODUL_THROW(std::runtime_error("LogDeviceSetNdiValue() FAILED!"));
    }
}

bool LogDeviceDatabaseOrvix::Exists() {
    FUNCTION_TRACE();
    const std::wstring logDevice = name_->GetLogName();
    const DWORD code = library_->LogDeviceExists(logDevice.c_str(), 0);
    switch (code) {
        case quelm::LDCF_OK:
            return true;
        case quelm::LDCF_ERR_LOG_DEVICE_NOT_EXISTS:
        case quelm::LDCF_ERR_XML_FILE_NOT_EXISTS:
            return false;
        default:
            TRACE_ERROR(19, "LogDeviceExists(%S): %s", logDevice, library_->GetReturnCodeName(code));
            return false;
    }
}

std::shared_ptr<LogDeviceDatabaseIf> LogDeviceDatabaseFactory::create_from_log_device(
    const std::string& name) {
    FUNCTION_TRACE();
    return create_from_log_device(std::make_shared<LogDeviceName>(name));
}

std::shared_ptr<LogDeviceDatabaseIf> LogDeviceDatabaseFactory::create_from_log_device(
    const std::shared_ptr<LogDeviceName>& name) {
    FUNCTION_TRACE();
    // Where the library keeps the log devices. It is the library's business alone; traces name it for whoever
    // looks for a log device by hand.
    const std::wstring logDevicesKey = L"SOFTWARE\\VALDORN\\TORUX\\LogDevices";
    TRACE_VERBOSE(21, "Opening %s below %S", name->GetLogNameA(), logDevicesKey);
    return std::make_shared<LogDeviceDatabaseOrvix>(std::make_unique<quelm::Q5orvix>(), name);
}

std::unique_ptr<DefaultLogDeviceDatabaseIf> DefaultLogDeviceDatabaseIf::Create() {
    FUNCTION_TRACE();
    return std::make_unique<DefaultLogDeviceDatabaseOrvix>(std::make_unique<quelm::Q5orvix>());
}

DefaultLogDeviceDatabaseOrvix::DefaultLogDeviceDatabaseOrvix(std::unique_ptr<quelm::Q5orvixIf> library)
    : library_(std::move(library)) {
    FUNCTION_TRACE();
    library_->LoadLib();
}

std::vector<std::string> DefaultLogDeviceDatabaseOrvix::Installed() {
    FUNCTION_TRACE();
    constexpr DWORD kBufferLength = 256;
    constexpr DWORD kMaxEntries = 10000;  // no installation has so many: a template that never ends
    std::vector<std::string> names;
    for (DWORD index = 0; index < kMaxEntries; ++index) {
        std::wstring buffer(kBufferLength, L'\0');
        DWORD length = kBufferLength;
        const DWORD code = library_->TemplateGetEnum(L"DefaultLogDevices", index, buffer.data(), &length);
        if (code != quelm::LDCF_OK) {
            if (code == quelm::LDCF_ERR_NO_MORE_ITEMS) TRACE_INFO(20, "%u default log devices", index);
            return names;
        }
        if (length > kBufferLength)
            TRACE_WARNING(22, "Entry %u: %u characters cannot be in the buffer", index, length);
        buffer.resize(std::min(length, kBufferLength));
        std::string name;
        if (PostProcess(buffer, name)) names.push_back(std::move(name));
    }
    TRACE_WARNING(23, "The template does not end after %u entries", kMaxEntries);
    return names;
}

bool DefaultLogDeviceDatabaseOrvix::PostProcess(const std::wstring& entry, std::string& name) {
    FUNCTION_TRACE();
    constexpr std::wstring_view kMark = L"LDT-";
    const std::wstring text = entry.substr(0, entry.find(L'\0'));
    // The last mark that has a dot behind it, and the last dot.
    const std::size_t dot = text.rfind(L'.');
    if (dot == std::wstring::npos || dot < kMark.length() || !IsOneLine(text)) return false;
    const std::size_t mark = text.rfind(kMark, dot - kMark.length());
    if (mark == std::wstring::npos) return false;
    const std::size_t begin = mark + kMark.length();
    std::wstring kind = text.substr(dot + 1);
    std::ranges::transform(kind, kind.begin(), [](wchar_t c) { return std::towupper(c); });
    name = toolbox::WstringToString(text.substr(begin, dot - begin) + L"(" + kind + L")");
    return true;
}

}  // namespace korvane
