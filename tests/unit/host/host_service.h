#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "command.h"

namespace host_test {

inline std::string ContentOf(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// tessahost.exe through the real service manager, with small plug-ins.
class HostService : public testing::Test {
  protected:
    HostService() {
        Run(L"uninstall");  // what an aborted test may have left
        ::DeleteFileW(log_.c_str());
    }
    ~HostService() override { Run(L"uninstall"); }

    test_support::CommandResult Run(const std::wstring& command) const {
        return test_support::RunCommand(L"tessahost.exe " + command + L" --name tessahost_unit_test");
    }
    test_support::CommandResult Install(const std::wstring& plugIn, const std::wstring& more = L"") const {
        return Run(L"install --plugin " + plugIn + L" --log \"" + log_ + L"\" " + more);
    }
    std::string HostLog() const { return ContentOf(log_); }
    bool LogHas(const std::string& text) const { return HostLog().find(text) != std::string::npos; }
    /// Whether the service is stopped with these exit codes.
    bool EndedWith(DWORD exitCode, DWORD ownCode) const {
        const std::string expected =
            "\"state\":\"STOPPED\",\"processId\":0,\"exitCode\":" + std::to_string(exitCode) +
            ",\"serviceExitCode\":" + std::to_string(ownCode) + ",";
        return test_support::Eventually(
            [&] { return Run(L"status --json").output.find(expected) != std::string::npos; });
    }

    std::wstring log_ = L"C:\\windows\\temp\\tessahost_unit_test.log";
    std::wstring usualLog_ = L"C:\\ProgramData\\Tessaplug\\tessahost.log";
};

}  // namespace host_test
