#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "companion_library.h"
#include "station.h"
#include "tool.h"

// The configuration library needs a library of its own. The service loads it from beside the configuration
// library and from nowhere else, and the tool judges the station as the service would.
namespace {

using adapter_control::Plug;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::CompanionBaseFolder;
using test_support::ConfigurationLibraryLocation;
using test_support::Eventually;
using test_support::kCompanion;
using test_support::OpenFolder;
using test_support::RunCommand;

constexpr char kLoadable[] = "ok       configuration library loadable";
constexpr char kNotLoadable[] = "PROBLEM  configuration library loadable";

/// A file in the Windows folder, which is on the PATH of every process, as long as it lives.
class OnPathOfAll {
  public:
    explicit OnPathOfAll(const std::filesystem::path& file) : copy_(L"C:\\windows" / file.filename()) {
        std::filesystem::copy(file, copy_, std::filesystem::copy_options::overwrite_existing);
    }
    ~OnPathOfAll() { std::filesystem::remove(copy_); }
    OnPathOfAll(const OnPathOfAll&) = delete;
    OnPathOfAll& operator=(const OnPathOfAll&) = delete;

  private:
    std::filesystem::path copy_;
};

class CompanionOfTheLibrary : public system_tests::Station {
  protected:
    ~CompanionOfTheLibrary() override {
        RunCommand(L"tessahost.exe uninstall");  // it may still have the library loaded
        std::filesystem::remove_all(lonely_);
    }

    /// A base folder where the companion is missing.
    std::wstring Lonely() const {
        std::filesystem::create_directories(lonely_ / "bin");
        std::filesystem::copy(CompanionBaseFolder() + L"\\bin\\q5orvix64x.dll", lonely_ / "bin");
        return lonely_.wstring();
    }

    const std::wstring own_ = CompanionBaseFolder() + L"\\bin";
    const std::wstring planted_ = CompanionBaseFolder() + L"\\planted";
    const std::filesystem::path lonely_ = L"C:\\windows\\temp\\library without companion";
};

}  // namespace

TEST_F(CompanionOfTheLibrary, BesideItIsLoadedAndNotThePlantedOne) {
    const OnPathOfAll planted(planted_ + L"\\" + kCompanion);
    ConfigurationLibraryLocation::Set(CompanionBaseFolder());
    StartService();
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    EXPECT_EQ(Count("companion.bin is searched for libraries"), 1u) << HostLog();
    const OpenFolder open(planted_);
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_TRUE(Contains(doctor, kLoadable)) << doctor.output;
}

TEST_F(CompanionOfTheLibrary, OnPathIsNotLoadedAndTheToolSaysSo) {
    const OnPathOfAll onPath(own_ + L"\\" + kCompanion);
    ConfigurationLibraryLocation::Set(Lonely());
    const OpenFolder open(own_);
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_TRUE(Contains(doctor, kNotLoadable)) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "must be beside it or in System32")) << doctor.output;
    StartService();
    Plug(nx4120_);
    EXPECT_TRUE(Eventually([&] { return Count("Device event 0x8000") == 1; }));
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u) << "when the event has been handled";
    EXPECT_TRUE(AllAre(L"NX4120", L"hidden"));
}

TEST_F(CompanionOfTheLibrary, IsFoundWhenTheLibraryIsInstalledWhileTheServiceRuns) {
    ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    StartService();
    EXPECT_EQ(Count("no such folder.bin cannot be searched for libraries: [^\n]*\\(error [23]\\)"), 1u)
        << HostLog();
    ConfigurationLibraryLocation::Set(CompanionBaseFolder());
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible")) << HostLog();
}
