#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

/// Stands between a program that links it and the system functions that message files are read with.
namespace test_support {

/// One FormatMessageW.
struct FormatCall {
    DWORD flags;
    const void* source;
    DWORD messageId;
    DWORD languageId;
    bool hasArguments;
    std::vector<std::wstring> arguments;  ///< up to the first null; of calls with an argument array
    bool lastArgumentIsNull;              ///< of 99
};

/// One LoadLibraryExW.
struct LoadCall {
    std::wstring file;
    HANDLE reserved;
    DWORD flags;
    HMODULE result;
};

/// The calls made in its lifetime, which go on to the system. Only one lives at a time.
struct MessageCalls {
    MessageCalls();
    ~MessageCalls();
    MessageCalls(const MessageCalls&) = delete;
    MessageCalls& operator=(const MessageCalls&) = delete;

    std::vector<FormatCall> formatted;
    std::vector<LoadCall> loaded;
    std::vector<HLOCAL> freed;       ///< by LocalFree
    std::function<void()> onFormat;  ///< called first, if there is one
    std::function<void()> onLoad;
};

}  // namespace test_support
