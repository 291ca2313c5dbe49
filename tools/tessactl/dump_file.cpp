#include "dump_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "exception_history_reader.h"
#include "text.h"
#include "version_resource.h"

namespace tessactl {

DumpFile::DumpFile(const std::wstring& path) : name_(Utf8(path)) {
    Map(path);
    ReadStreams();
}

DumpFile::DumpFile(std::span<const std::byte> bytes, std::string name)
    : name_(std::move(name)), bytes_(bytes) {
    ReadStreams();
}

void DumpFile::Map(const std::wstring& path) {
    file_.reset(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    if (!file_ || !::GetFileSizeEx(file_.get(), &size))
        throw ToolError(name_ + " cannot be opened: " + ErrorInWords(::GetLastError()));
    if (size.QuadPart < static_cast<LONGLONG>(sizeof(MINIDUMP_HEADER)))
        throw ToolError(name_ + " is no memory dump");
    mapping_.reset(::CreateFileMappingW(file_.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (mapping_) view_.reset(::MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, 0));
    if (!view_) throw ToolError(name_ + " cannot be read: " + ErrorInWords(::GetLastError()));
    bytes_ = {static_cast<const std::byte*>(view_.get()), static_cast<std::size_t>(size.QuadPart)};
}

template <typename T>
T DumpFile::Get(std::size_t at) const {
    if (at > bytes_.size() || bytes_.size() - at < sizeof(T)) throw ToolError(name_ + " is cut off");
    T value;
    std::memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
}

void DumpFile::ReadStreams() {
    const auto header = Get<MINIDUMP_HEADER>(0);
    if (header.Signature != MINIDUMP_SIGNATURE) throw ToolError(name_ + " is no memory dump");
    for (ULONG i = 0; i < header.NumberOfStreams; ++i) {
        const auto directory =
            Get<MINIDUMP_DIRECTORY>(header.StreamDirectoryRva + std::size_t{i} * sizeof(MINIDUMP_DIRECTORY));
        const std::size_t at = directory.Location.Rva;
        switch (directory.StreamType) {
            case ModuleListStream:
                ReadModules(at);
                break;
            case ExceptionStream:
                ReadException(at);
                break;
            case ThreadListStream:
                threadCount_ = Get<ULONG32>(at);
                break;
            case Memory64ListStream:
                ReadMemoryRanges(at);
                break;
            default:
                break;
        }
    }
}

void DumpFile::ReadModules(std::size_t at) {
    constexpr ULONG32 kMost = 4096;
    const auto count = Get<ULONG32>(at);
    if (count > kMost) throw ToolError(name_ + " is damaged: it names " + std::to_string(count) + " modules");
    at += sizeof(ULONG32);
    modules_.clear();
    for (ULONG32 i = 0; i < count; ++i, at += sizeof(MINIDUMP_MODULE)) {
        const auto module = Get<MINIDUMP_MODULE>(at);
        const bool hasVersion = module.VersionInfo.dwSignature == VS_FFI_SIGNATURE;
        modules_.push_back({StringAt(module.ModuleNameRva), module.BaseOfImage, module.SizeOfImage,
                            hasVersion ? VersionNumber(module.VersionInfo) : ""});
    }
}

std::wstring DumpFile::StringAt(std::size_t at) const {
    constexpr std::size_t kLongestPath = 32767;
    const std::size_t length = Get<ULONG32>(at) / sizeof(wchar_t);
    if (length > kLongestPath)
        throw ToolError(name_ + " is damaged: a module's name has " + std::to_string(length) + " characters");
    at += sizeof(ULONG32);
    if (at > bytes_.size() || (bytes_.size() - at) / sizeof(wchar_t) < length)
        throw ToolError(name_ + " is cut off");
    std::wstring text(length, L'\0');
    std::memcpy(text.data(), bytes_.data() + at, length * sizeof(wchar_t));
    return text;
}

void DumpFile::ReadException(std::size_t at) {
    const auto stream = Get<MINIDUMP_EXCEPTION_STREAM>(at);
    const MINIDUMP_EXCEPTION& raw = stream.ExceptionRecord;
    Exception exception = {stream.ThreadId, raw.ExceptionCode, raw.ExceptionAddress, {}};
    for (ULONG32 i = 0; i < std::min<ULONG32>(raw.NumberParameters, EXCEPTION_MAXIMUM_PARAMETERS); ++i)
        exception.parameters.push_back(raw.ExceptionInformation[i]);
    exception_ = exception;
}

void DumpFile::ReadMemoryRanges(std::size_t at) {
    const auto count = Get<ULONG64>(at);
    ULONG64 offset = Get<ULONG64>(at + sizeof(ULONG64));
    at += 2 * sizeof(ULONG64);
    ranges_.clear();
    for (ULONG64 i = 0; i < count; ++i, at += sizeof(MINIDUMP_MEMORY_DESCRIPTOR64)) {
        const auto range = Get<MINIDUMP_MEMORY_DESCRIPTOR64>(at);
        if (offset > bytes_.size() || bytes_.size() - offset < range.DataSize)
            throw ToolError(name_ + " is cut off");
        ranges_.push_back({range.StartOfMemoryRange, range.DataSize, offset});
        offset += range.DataSize;
    }
}

const DumpFile::Module* DumpFile::ModuleAt(ULONG64 address) const {
    const auto found = std::ranges::find_if(modules_, [address](const Module& module) {
        return address >= module.base && address - module.base < module.size;
    });
    return found != modules_.end() ? &*found : nullptr;
}

std::span<const std::byte> DumpFile::Memory(ULONG64 address, ULONG64 size) const {
    for (const Range& range : ranges_)
        if (address >= range.address && address - range.address <= range.size &&
            range.size - (address - range.address) >= size)
            return bytes_.subspan(static_cast<std::size_t>(range.offset + (address - range.address)),
                                  static_cast<std::size_t>(size));
    return {};
}

MemoryReader DumpFile::Reader() const {
    return [this](ULONG64 address, void* to, std::size_t size) {
        const auto bytes = Memory(address, size);
        if (bytes.empty()) return false;
        std::memcpy(to, bytes.data(), size);
        return true;
    };
}

std::optional<std::vector<modul_exception::ExceptionRecord>> DumpFile::HistoryOf(const Module& module) const {
    const HistoryReading reading = ReadHistory(Reader(), module.base, module.size);
    if (reading.outcome != HistoryReading::Outcome::kRead) return std::nullopt;
    return reading.Records();
}

BuildVersion DumpFile::BuildOf(const Module& module) const {
    if (Memory(module.base, sizeof(IMAGE_DOS_HEADER)).empty())
        throw ToolError("the dump does not have its memory");
    return ReadVersionResource({Reader(), module.base, module.size});
}

std::string ExceptionName(DWORD code) {
    switch (code) {
        case EXCEPTION_ACCESS_VIOLATION:
            return "access violation";
        case EXCEPTION_BREAKPOINT:
            return "breakpoint";
        case EXCEPTION_ILLEGAL_INSTRUCTION:
            return "illegal instruction";
        case EXCEPTION_INT_DIVIDE_BY_ZERO:
            return "integer division by zero";
        case EXCEPTION_STACK_OVERFLOW:
            return "stack overflow";
        case EXCEPTION_IN_PAGE_ERROR:
            return "page cannot be read";
        default:
            return {};
    }
}

}  // namespace tessactl
