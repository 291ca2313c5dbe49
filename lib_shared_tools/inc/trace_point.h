#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "last_error_keeper.h"
#include "trace_provider.h"

/// Trace points. A source file states once, at its top, its built-in path, its message GUID and the channel
/// it traces through; its trace points are numbered within it, from 10 up, and carry their text:
///
///     TRACE_SOURCE("lib_shared_tools\\src\\win_interprocess", "5be1c4d2-...", trace::kSharedTools);
///     ...
///     TRACE_INFO(12, "Mutex %S opened, handle %p", name, handle);
///
/// The text is checked against the arguments when the file is compiled and then dropped: it is not in the
/// binary. tools/make_tmf.py collects the texts into trace message format files, one per message GUID.
///
/// Arguments: %d %u %x for 32-bit integers (and smaller), %lld %llu %llx for 64-bit integers, %p for pointers
/// and handles, %s for narrow and %S for wide strings. They are evaluated only if the point is enabled.
namespace trace {

/// A GUID from its text without braces, at compile time.
consteval GUID GuidFrom(const char (&text)[37]) {
    auto digit = [&text](std::size_t at) -> unsigned {
        const char c = text[at];
        if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
        if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
        throw "a message GUID has lower-case hexadecimal digits only";
    };
    auto number = [&digit](std::size_t at, std::size_t digits) {
        unsigned long value = 0;
        for (std::size_t i = 0; i < digits; ++i)
            value = value * 16 + digit(at + i);
        return value;
    };
    GUID guid = {};
    guid.Data1 = number(0, 8);
    guid.Data2 = static_cast<unsigned short>(number(9, 4));
    guid.Data3 = static_cast<unsigned short>(number(14, 4));
    for (std::size_t i = 0; i < 8; ++i)
        guid.Data4[i] = static_cast<unsigned char>(number((i < 2 ? 19 : 20) + 2 * i, 2));
    return guid;
}

/// How one argument travels: its bytes, and the conversion that its text must use.
template <typename T>
struct Argument;

template <typename T>
    requires((std::integral<T> || std::is_enum_v<T>) && sizeof(T) <= 4)
struct Argument<T> {
    static constexpr char kKind = 'i';
    explicit Argument(T value) : value_(static_cast<unsigned int>(value)) {}
    const void* data() const { return &value_; }
    std::size_t size() const { return sizeof value_; }

  private:
    unsigned int value_;
};

template <typename T>
    requires(std::integral<T> && sizeof(T) == 8)
struct Argument<T> {
    static constexpr char kKind = 'l';
    explicit Argument(T value) : value_(value) {}
    const void* data() const { return &value_; }
    std::size_t size() const { return sizeof value_; }

  private:
    T value_;
};

template <typename T>
struct Argument<T*> {
    static constexpr char kKind = 'p';
    explicit Argument(const volatile void* value) : value_(const_cast<const void*>(value)) {}
    const void* data() const { return &value_; }
    std::size_t size() const { return sizeof value_; }

  private:
    const void* value_;
};

/// A string goes out with its terminating zero; a null one as "NULL".
template <typename Char>
struct StringArgument {
    static constexpr char kKind = sizeof(Char) == 1 ? 's' : 'S';
    explicit StringArgument(const Char* text) : text_(text != nullptr ? text : Null()) {}
    explicit StringArgument(const std::basic_string<Char>& text) : text_(text.c_str()) {}
    const void* data() const { return text_; }
    std::size_t size() const { return (std::char_traits<Char>::length(text_) + 1) * sizeof(Char); }

  private:
    static const Char* Null() {
        static constexpr Char null[] = {'N', 'U', 'L', 'L', 0};
        return null;
    }
    const Char* text_;
};

template <>
struct Argument<const char*> : StringArgument<char> {
    using StringArgument::StringArgument;
};
template <>
struct Argument<char*> : StringArgument<char> {
    using StringArgument::StringArgument;
};
template <>
struct Argument<std::string> : StringArgument<char> {
    using StringArgument::StringArgument;
};
template <>
struct Argument<const wchar_t*> : StringArgument<wchar_t> {
    using StringArgument::StringArgument;
};
template <>
struct Argument<wchar_t*> : StringArgument<wchar_t> {
    using StringArgument::StringArgument;
};
template <>
struct Argument<std::wstring> : StringArgument<wchar_t> {
    using StringArgument::StringArgument;
};

/// Compares a trace text with the arguments that follow it.
template <typename... Args>
struct ArgumentTypes {
    static consteval bool Match(std::string_view text) {
        constexpr char kinds[] = {Argument<Args>::kKind..., '\0'};
        std::size_t next = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] != '%') continue;
            if (++i == text.size()) return false;
            if (text[i] == '%') continue;
            const bool is64Bit = text.substr(i).starts_with("ll");
            if (is64Bit) i += 2;
            if (i == text.size() || kinds[next] != KindOf(text[i], is64Bit)) return false;
            ++next;
        }
        return next == sizeof...(Args);
    }

  private:
    static consteval char KindOf(char conversion, bool is64Bit) {
        switch (conversion) {
            case 'd':
            case 'u':
            case 'x':
                return is64Bit ? 'l' : 'i';
            case 'p':
            case 's':
            case 'S':
                return is64Bit ? '?' : conversion;
            default:
                return '?';
        }
    }
};

/// For decltype only: the argument types as they travel (arrays as pointers).
template <typename... Args>
ArgumentTypes<std::decay_t<Args>...> TypesOf(const Args&... args);

/// Writes one message. The caller's last error stays as it was.
template <typename... Args>
[[gnu::noinline]] void Write(const TraceControlBlock& block, const GUID& messageGuid, USHORT number,
                             const Args&... args) {
    constexpr ULONG kFlags =
        TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_TIMESTAMP | TRACE_MESSAGE_SYSTEMINFO;
    static_assert(kFlags == 0x2B);
    const LastErrorKeeper keepLastError;
    const std::tuple<Argument<std::decay_t<Args>>...> arguments(Argument<std::decay_t<Args>>{args}...);
    const auto pairs = std::apply(
        [](const auto&... argument) {
            return std::tuple_cat(std::make_tuple(argument.data(), argument.size())...);
        },
        arguments);
    std::apply(
        [&](auto... pointerAndLength) {
            // A trace never fails its caller: the result is ignored.
            ::TraceMessage(block.loggerHandle.load(std::memory_order_relaxed), kFlags, &messageGuid, number,
                           pointerAndLength..., static_cast<void*>(nullptr));
        },
        pairs);
}

/// "true" or "false", for trace texts.
inline const char* ToText(bool value) {
    return value ? "true" : "false";
}

}  // namespace trace

/// States a source file's built-in path (folder\src\name), message GUID and channel.
#define TRACE_SOURCE(path, guid, fileChannel)                                     \
    namespace {                                                                   \
    [[maybe_unused]] constexpr char kSourcePath[] = path;                         \
    [[maybe_unused]] constexpr wchar_t kWideSourcePath[] = L"" path;              \
    [[maybe_unused]] constexpr GUID kMessageGuid = trace::GuidFrom(guid);         \
    [[maybe_unused]] constexpr const trace::Channel& kTraceChannel = fileChannel; \
    }                                                                             \
    static_assert(true, "")

#define TRACE_AT_LEVEL(level, number, text, ...)                                                        \
    do {                                                                                                \
        static_assert(decltype(trace::TypesOf(__VA_ARGS__))::Match(text), "text and arguments differ"); \
        if (trace::IsEnabled(kTraceChannel, level))                                                     \
            trace::Write(kTraceChannel.block, kMessageGuid, number __VA_OPT__(, ) __VA_ARGS__);         \
    } while (false)

#define TRACE_ERROR(number, text, ...) TRACE_AT_LEVEL(trace::kError, number, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_WARNING(number, text, ...) \
    TRACE_AT_LEVEL(trace::kWarning, number, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_INFO(number, text, ...) \
    TRACE_AT_LEVEL(trace::kInformation, number, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_VERBOSE(number, text, ...) \
    TRACE_AT_LEVEL(trace::kVerbose, number, text __VA_OPT__(, ) __VA_ARGS__)
