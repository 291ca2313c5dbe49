#pragma once

#include <string>

#include "command.h"

namespace system_tests {

inline test_support::CommandResult Tool(const std::wstring& arguments) {
    return test_support::RunCommand(L"tessactl.exe " + arguments);
}

inline bool Contains(const test_support::CommandResult& result, const std::string& text) {
    return result.output.find(text) != std::string::npos;
}

}  // namespace system_tests
