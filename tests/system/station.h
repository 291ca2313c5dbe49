#pragma once

#include <windows.h>

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "adapter_control.h"
#include "command.h"
#include "configuration_library_location.h"
#include "log_device_store.h"

namespace system_tests {

using adapter_control::FindModel;
using adapter_control::Plug;
using adapter_control::Unplug;
using configuration_library::LogDeviceStore;
using test_support::CommandResult;
using test_support::ConfigurationLibraryLocation;
using test_support::Eventually;
using test_support::ProgramFolder;
using test_support::RunCommand;

const std::vector<std::wstring> kKinds = {L"auto", L"xli", L"profibus", L"fwl", L"fwl_fast_load"};

/// A station: adapters installed and unplugged, a fresh store with all log devices hidden, the service
/// installed.
class Station : public testing::Test {
  protected:
    Station() {
        const std::wstring inf = ProgramFolder() + L"adapters.inf";
        for (const auto& model : adapter_control::Models())
            adapter_control::Install(model, inf);
        UnplugAll();
        store_.Wipe();
        store_.Initialise();
        for (const auto* model : {L"NX4120", L"Fennlink U3"})
            for (const auto& kind : kKinds) {
                entries_.push_back(std::wstring(L"LDT-") + model + L"." + kind);
                store_.Create(std::wstring(model) + L"." + kind + L".1", {{L"hidden", L"true"}});
            }
        store_.SetTemplateEntries(entries_);
        RunCommand(L"tessahost.exe uninstall");  // what an aborted test may have left
        ::DeleteFileW(log_.c_str());
        EXPECT_EQ(RunCommand(L"tessahost.exe install --log \"" + log_ + L"\"").exitCode, 0u);
    }
    ~Station() override {
        RunCommand(L"tessahost.exe uninstall");
        UnplugAll();
        store_.Wipe();
    }

    static void UnplugAll() {
        for (const auto& model : adapter_control::Models())
            for (const DWORD port : {0u, 1u})
                Unplug(model, port);
    }

    void StartService() {
        const CommandResult started = RunCommand(L"tessahost.exe start");
        ASSERT_EQ(started.exitCode, 0u) << started.output << HostLog();
        test_support::WaitUntilDeviceEventsCome();
    }

    std::wstring State(const std::wstring& logDevice) const {
        std::wstring hidden;
        if (store_.GetValue(logDevice, L"hidden", hidden) != 0) return L"missing";
        return hidden == L"true" ? L"hidden" : L"visible";
    }
    bool AllAre(const std::wstring& model, const std::wstring& state) const {
        for (const auto& kind : kKinds)
            if (State(model + L"." + kind + L".1") != state) return false;
        return true;
    }
    bool AllBecome(const std::wstring& model, const std::wstring& state) const {
        return Eventually([&] { return AllAre(model, state); });
    }

    std::string HostLog() const {
        std::ifstream file(std::string(log_.begin(), log_.end()), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::size_t Count(const std::string& pattern) const {
        const std::string log = HostLog();
        const std::regex expression(pattern);
        return static_cast<std::size_t>(
            std::distance(std::sregex_iterator(log.begin(), log.end(), expression), std::sregex_iterator()));
    }

    ConfigurationLibraryLocation location_{ProgramFolder() + L"station"};
    LogDeviceStore store_;
    std::vector<std::wstring> entries_;
    std::wstring log_ = L"C:\\windows\\temp\\tessahost_test.log";
    const adapter_control::Model& nx4120_ = *FindModel(L"NX4120");
    const adapter_control::Model& fennlinkU3_ = *FindModel(L"FennlinkU3");
};

}  // namespace system_tests
