#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "adapter_control.h"
#include "configuration_library_location.h"
#include "log_device_store.h"
#include "program_folder.h"

namespace sweep {

inline const std::vector<std::wstring> kModels = {L"NX4120", L"Fennlink U3"};
inline const std::vector<std::wstring> kKinds = {L"auto", L"xli", L"profibus", L"fwl", L"fwl_fast_load"};

/// The configuration library with a store of its own, for this process and those that it starts: all log
/// devices of both models, hidden.
class StationOfItsOwn {
  public:
    StationOfItsOwn() {
        store_.Wipe();
        store_.Initialise();
        std::vector<std::wstring> entries;
        for (const std::wstring& model : kModels)
            for (const std::wstring& kind : kKinds) {
                entries.push_back(L"LDT-" + model + L"." + kind);
                store_.Create(model + L"." + kind + L".1", {{L"hidden", L"true"}});
            }
        store_.SetTemplateEntries(entries);
    }
    ~StationOfItsOwn() {
        store_.Wipe();
        ::SetEnvironmentVariableW(kVariable, nullptr);
    }
    StationOfItsOwn(const StationOfItsOwn&) = delete;
    StationOfItsOwn& operator=(const StationOfItsOwn&) = delete;

    const configuration_library::LogDeviceStore& Store() const { return store_; }

    /// True if each log device of a model is shown, or each is hidden.
    bool AllAre(const std::wstring& model, bool hidden) const {
        for (const std::wstring& kind : kKinds) {
            std::wstring value;
            store_.GetValue(model + L"." + kind + L".1", L"hidden", value);
            if ((value == L"true") != hidden) return false;
        }
        return true;
    }

  private:
    static constexpr wchar_t kVariable[] = L"Q5ORVIX_ROOT";
    static constexpr wchar_t kRoot[] = L"SOFTWARE\\TESSA_TEST\\SWEEP";
    /// Before the store is made, which reads it.
    struct Variable {
        Variable() { ::SetEnvironmentVariableW(kVariable, kRoot); }
    } variable_;
    test_support::ConfigurationLibraryLocation location_{test_support::ProgramFolder() + L"station"};
    configuration_library::LogDeviceStore store_{kRoot};
};

/// Both adapters installed and unplugged, before and after.
class AdaptersOfItsOwn {
  public:
    AdaptersOfItsOwn() {
        for (const auto& model : adapter_control::Models())
            adapter_control::Install(model, test_support::ProgramFolder() + L"adapters.inf");
        UnplugAll();
    }
    ~AdaptersOfItsOwn() { UnplugAll(); }
    AdaptersOfItsOwn(const AdaptersOfItsOwn&) = delete;
    AdaptersOfItsOwn& operator=(const AdaptersOfItsOwn&) = delete;

  private:
    static void UnplugAll() {
        for (const auto& model : adapter_control::Models())
            for (const DWORD port : {0u, 1u})
                adapter_control::Unplug(model, port);
    }
};

/// What is asked for beyond the regular run: the value of TESSA_SWEEP.
inline std::string Wanted() {
    char value[64] = {};
    ::GetEnvironmentVariableA("TESSA_SWEEP", value, ARRAYSIZE(value));
    return value;
}

/// True if the long form of a test is asked for.
inline bool WantsAll() {
    return Wanted() == "all";
}

}  // namespace sweep
