#pragma once

#include <cstddef>
#include <string_view>

namespace trace {

/// The full name (namespace, class and function joined by "::") in what the compiler calls a function.
consteval std::string_view FullName(std::string_view prettyFunction) {
    constexpr std::string_view kAnonymous = "(anonymous namespace)";
    std::size_t start = 0;
    int depth = 0;  // of template arguments
    for (std::size_t i = 0; i < prettyFunction.size(); ++i) {
        if (prettyFunction.substr(i).starts_with(kAnonymous)) {
            i += kAnonymous.size() - 1;
            continue;
        }
        const char c = prettyFunction[i];
        if (c == '<') ++depth;
        if (c == '>') --depth;
        if (depth != 0) continue;
        if (c == ' ' || c == '*' || c == '&') start = i + 1;
        if (c == '(') return prettyFunction.substr(start, i - start);
    }
    return prettyFunction;
}

/// A function's full name as text of its own, without the rest of what the compiler calls it.
template <std::size_t Length>
struct FunctionName {
    char text[Length + 1] = {};

    consteval explicit FunctionName(std::string_view prettyFunction) {
        const std::string_view name = FullName(prettyFunction);
        for (std::size_t i = 0; i < Length; ++i)
            text[i] = name[i];
    }
};

/// The part of a built-in source path behind its last backslash; the whole path if it has none.
constexpr const char* BaseName(const char* sourcePath) {
    const char* base = sourcePath;
    for (const char* c = sourcePath; *c != '\0'; ++c)
        if (*c == '\\') base = c + 1;
    return base;
}

}  // namespace trace

/// Declares `variable` with the full name of the function it stands in.
#define DECLARE_FUNCTION_NAME(variable)                                                          \
    static constexpr trace::FunctionName<trace::FullName(__PRETTY_FUNCTION__).size()> variable { \
        __PRETTY_FUNCTION__                                                                      \
    }
