#include <windows.h>
#include <objbase.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "build_info.h"
#include "event_log_file.h"
#include "process_list.h"
#include "station.h"
#include "tool.h"

// What the tool's doctor finds on stations that are well and on such that are not.
namespace {

using adapter_control::Plug;
using adapter_control::Unplug;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::ConfigurationLibraryLocation;
using test_support::Eventually;
using test_support::FaultyLibrary;
using test_support::ProcessRuns;
using test_support::ProgramEnds;
using test_support::ProgramFolder;
using test_support::RunCommand;

constexpr wchar_t kLockName[] = L"Global\\TESSAPLUG_INSTANCE_LOCK__{28A2EEC4-8E69-48DC-A466-EF82F7220B13}";
constexpr DWORD kMonitorEnded = 0x80000105;

class Doctor : public system_tests::Station {};

/// The one line of a finding, with its advice if it has one.
std::string FindingOf(const CommandResult& result, const std::string& what) {
    const std::size_t at = result.output.find("  " + what + " ");
    if (at == std::string::npos) return "";
    const std::size_t start = result.output.rfind('\n', at) + 1;
    std::size_t end = result.output.find('\n', at) + 1;
    if (result.output.compare(end, 11, "         ->") == 0) end = result.output.find('\n', end) + 1;
    return result.output.substr(start, end - start);
}

void Report(const std::wstring& source, WORD type, DWORD id) {
    wine_gap::Event event;
    event.source = source;
    event.type = type;
    event.id = id;
    EXPECT_EQ(wine_gap::EventLogFile(L"Application").Append({event}), ERROR_SUCCESS);
}

/// Suspends every process of a program for as long as it lives.
class Suspended {
  public:
    explicit Suspended(const std::wstring& program) {
        for (const DWORD id : test_support::ProcessesOf(program))
            Suspend(id);
    }
    ~Suspended() {
        for (const HANDLE process : processes_) {
            Call("NtResumeProcess", process);
            ::CloseHandle(process);
        }
    }
    Suspended(const Suspended&) = delete;
    Suspended& operator=(const Suspended&) = delete;
    std::size_t Count() const { return processes_.size(); }

  private:
    void Suspend(DWORD id) {
        const HANDLE process = ::OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, id);
        EXPECT_NE(process, nullptr);
        processes_.push_back(process);
        EXPECT_EQ(Call("NtSuspendProcess", process), 0);
    }
    static LONG Call(const char* function, HANDLE process) {
        const FARPROC address = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), function);
        return reinterpret_cast<LONG(NTAPI*)(HANDLE)>(reinterpret_cast<void*>(address))(process);
    }
    std::vector<HANDLE> processes_;
};

/// The service, without waiting for anything.
class Service {
  public:
    Service()
        : manager_(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
          service_(::OpenServiceW(manager_, L"tessahost", SERVICE_ALL_ACCESS)) {}
    ~Service() {
        ::CloseServiceHandle(service_);
        ::CloseServiceHandle(manager_);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    SC_HANDLE get() const { return service_; }
    void Stop() const {
        SERVICE_STATUS status = {};
        EXPECT_TRUE(::ControlService(service_, SERVICE_CONTROL_STOP, &status));
    }
    DWORD State() const {
        SERVICE_STATUS status = {};
        ::QueryServiceStatus(service_, &status);
        return status.dwCurrentState;
    }

  private:
    SC_HANDLE manager_;
    SC_HANDLE service_;
};

/// The station manager runs as long as somebody uses it.
class StationManagerInUse {
  public:
    StationManagerInUse() {
        constexpr CLSID kStation = {
            0xA1BFDF31, 0xF4D2, 0x11D3, {0x91, 0x40, 0x00, 0x10, 0x5A, 0xAF, 0xF7, 0x83}};
        EXPECT_EQ(::CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        EXPECT_EQ(::CoCreateInstance(kStation, nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                                     reinterpret_cast<void**>(&station_)),
                  S_OK);
    }
    ~StationManagerInUse() {
        if (station_ != nullptr) station_->Release();
        ::CoUninitialize();
    }
    StationManagerInUse(const StationManagerInUse&) = delete;
    StationManagerInUse& operator=(const StationManagerInUse&) = delete;

  private:
    IUnknown* station_ = nullptr;
};

/// A station whose plug-in is a copy, which may be replaced.
class DoctorOfBuilds : public Doctor {
  protected:
    DoctorOfBuilds() {
        std::filesystem::create_directories(folder_);
        std::ifstream file(std::filesystem::path(ProgramFolder() + L"tessaplug.dll"), std::ios::binary);
        plugIn_.assign(std::istreambuf_iterator<char>(file), {});
        Write(plugIn_);
        RunCommand(L"tessahost.exe uninstall");
        EXPECT_EQ(
            RunCommand(L"tessahost.exe install --plugin " + path_ + L" --log \"" + log_ + L"\"").exitCode,
            0u);
    }
    ~DoctorOfBuilds() override {
        RunCommand(L"tessahost.exe uninstall");
        std::filesystem::remove_all(folder_);
    }

    void Write(const std::string& content) const {
        std::ofstream(std::filesystem::path(path_), std::ios::binary) << content;
    }
    /// As an update does it, which cannot write into a file that is in use.
    void Replace(const std::string& content) const {
        std::filesystem::rename(path_, folder_ + L"\\old.dll");
        Write(content);
    }
    /// The plug-in of another version or commit.
    std::string Changed(const std::string& text) const {
        std::string changed = plugIn_;
        const std::string wide(reinterpret_cast<const char*>(std::wstring(text.begin(), text.end()).c_str()),
                               text.length() * sizeof(wchar_t));
        std::size_t count = 0;
        for (std::size_t at = changed.find(wide); at != std::string::npos;
             at = changed.find(wide, at), ++count)
            changed[at + 2] = '~';
        EXPECT_GT(count, 0u);
        return changed;
    }

    const std::wstring folder_ = L"C:\\windows\\temp\\builds";
    const std::wstring path_ = folder_ + L"\\tessaplug.dll";
    std::string plugIn_;
};

/// A station whose station manager is registered.
class DoctorWithManager : public Doctor {
  protected:
    DoctorWithManager() { EXPECT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0u); }
    ~DoctorWithManager() override {
        EXPECT_TRUE(ProgramEnds(L"stationmgr.exe")) << "nobody uses it any more";
        RunCommand(L"stationmgr.exe unregister");
    }
};

}  // namespace

TEST_F(DoctorWithManager, FindsNothingOnASoundStation) {
    Plug(nx4120_);
    Plug(fennlinkU3_);
    StartService();
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 0u) << doctor.output;
    EXPECT_FALSE(Contains(doctor, "PROBLEM")) << doctor.output;
    EXPECT_TRUE(Contains(doctor,
                         "ok       plug-in running                             it is loaded in the "
                         "service, and the instance lock is held\n"))
        << doctor.output;
    EXPECT_TRUE(FindingOf(doctor, "station manager answers").starts_with("ok ")) << doctor.output;
}

TEST_F(Doctor, SaysWhatIsWrongAndWhatToDo) {
    store_.Delete(L"NX4120.XLI.1");
    const CommandResult doctor = Tool(L"doctor --expect NX4120");
    EXPECT_EQ(doctor.exitCode, 3u);
    EXPECT_TRUE(Contains(doctor, "PROBLEM  service running ")) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "missing: NX4120(XLI)\n         -> plug the adapter in")) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "PROBLEM  NX4120: adapter present and active")) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "PROBLEM  station manager registered")) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "ok       driver message file")) << doctor.output;
    const CommandResult other = Tool(L"doctor --service \"no such\"");
    EXPECT_TRUE(Contains(other, "\"no such\" cannot be opened: ")) << other.output;
    EXPECT_TRUE(Contains(other, " (error 1060)\n         -> tessahost install; ")) << other.output;
    EXPECT_TRUE(FindingOf(other, "service running").starts_with("PROBLEM ")) << other.output;
}

TEST_F(Doctor, AdapterThatIsNotThereIsANoteUnlessItIsExpected) {
    Plug(fennlinkU3_);
    StartService();
    const CommandResult one = Tool(L"doctor");
    EXPECT_EQ(one.exitCode, 0u) << "a station may have one adapter only\n" << one.output;
    EXPECT_TRUE(FindingOf(one, "NX4120: adapter present and active").starts_with("note ")) << one.output;
    EXPECT_TRUE(FindingOf(one, "station manager registered").starts_with("note ")) << one.output;
    const CommandResult both = Tool(L"doctor --expect \"Fennlink U3\" --expect nx4120");
    EXPECT_EQ(both.exitCode, 3u);
    EXPECT_TRUE(FindingOf(both, "NX4120: adapter present and active").starts_with("PROBLEM ")) << both.output;
    EXPECT_TRUE(FindingOf(both, "station manager registered").starts_with("PROBLEM ")) << both.output;
    EXPECT_TRUE(FindingOf(both, "Fennlink U3: adapter present and active").starts_with("ok ")) << both.output;
    EXPECT_EQ(Tool(L"doctor --expect FennlinkU3").exitCode, 0u);
}

TEST_F(Doctor, ModelThatThereIsNotIsNotUnderstood) {
    const CommandResult refused = Tool(L"doctor --expect NX9999");
    EXPECT_EQ(refused.exitCode, 2u);
    EXPECT_TRUE(Contains(refused, R"(no model NX9999; those there are: "Fennlink U3", "NX4120")"))
        << refused.output;
    for (const auto* arguments : {L"doctor --expect", L"doctor --timeout 0", L"doctor --timeout 5s",
                                  L"doctor --timeout 3601", L"doctor --service a --service b"})
        EXPECT_EQ(Tool(arguments).exitCode, 2u) << arguments;
}

TEST_F(Doctor, AccessPointThatIsVisibleWithoutAnAdapterIsAProblem) {
    StartService();
    EXPECT_EQ(Tool(L"doctor").exitCode, 0u);
    EXPECT_EQ(Tool(L"show NX4120(XLI)").exitCode, 0u);
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 3u);
    const std::string finding = FindingOf(doctor, "NX4120: access points hidden");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << doctor.output;
    EXPECT_NE(finding.find("visible without an adapter: NX4120(XLI)\n"), std::string::npos) << finding;
    EXPECT_EQ(FindingOf(doctor, "Fennlink U3: access points hidden"), "");
}

TEST_F(Doctor, HiddenAccessPointOfAnAdapterIsAProblem) {
    Plug(fennlinkU3_);
    StartService();
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    EXPECT_EQ(Tool(L"hide \"Fennlink U3(FWL)\"").exitCode, 0u);
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 3u);
    EXPECT_NE(FindingOf(doctor, "Fennlink U3: access points visible").find("hidden: Fennlink U3(FWL)\n"),
              std::string::npos)
        << doctor.output;
}

TEST_F(Doctor, StrangerWhoHoldsTheInstanceLockIsNotThePlugIn) {
    const CommandResult free = Tool(L"doctor");
    EXPECT_NE(FindingOf(free, "plug-in running").find("nobody holds the instance lock"), std::string::npos);
    const HANDLE lock = ::CreateMutexW(nullptr, TRUE, kLockName);
    const CommandResult held = Tool(L"doctor");
    ::CloseHandle(lock);
    EXPECT_EQ(held.exitCode, 3u);
    const std::string finding = FindingOf(held, "plug-in running");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << held.output;
    EXPECT_NE(finding.find("a stranger holds the instance lock"), std::string::npos) << finding;
}

TEST_F(Doctor, ServiceThatRunsAnotherPlugInDoesNotMakeTheStrangerOne) {
    RunCommand(L"tessahost.exe uninstall");
    EXPECT_EQ(
        RunCommand(L"tessahost.exe install --plugin plug_in_works.dll --log \"" + log_ + L"\"").exitCode, 0u);
    StartService();
    const HANDLE lock = ::CreateMutexW(nullptr, TRUE, kLockName);
    const CommandResult held = Tool(L"doctor");
    EXPECT_NE(FindingOf(held, "plug-in running").find("a stranger holds the instance lock"),
              std::string::npos)
        << held.output;
    const CommandResult named = Tool(L"doctor --plugin plug_in_works.dll");
    ::CloseHandle(lock);
    EXPECT_TRUE(FindingOf(named, "plug-in running").starts_with("ok ")) << named.output;
}

TEST_F(Doctor, MonitorThatEndedIsAProblemUntilTheNextStart) {
    Report(L"tessaplug", EVENTLOG_WARNING_TYPE, kMonitorEnded);
    StartService();
    EXPECT_TRUE(FindingOf(Tool(L"doctor"), "messages of the driver are shown").starts_with("ok "))
        << "it ended before the start";
    Report(L"another", EVENTLOG_WARNING_TYPE, kMonitorEnded);
    EXPECT_EQ(Tool(L"doctor").exitCode, 0u) << "that was somebody else's entry";
    Report(L"tessaplug", EVENTLOG_WARNING_TYPE, kMonitorEnded);
    const CommandResult ended = Tool(L"doctor");
    EXPECT_EQ(ended.exitCode, 3u);
    const std::string finding = FindingOf(ended, "messages of the driver are shown");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << ended.output;
    EXPECT_NE(finding.find("their monitor ended at 20"), std::string::npos) << finding;
    EXPECT_NE(finding.find("-> see that a user is logged on"), std::string::npos) << finding;
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    StartService();
    EXPECT_EQ(Tool(L"doctor").exitCode, 0u);
}

TEST_F(DoctorWithManager, StationManagerThatHangsHoldsItNoLongerThanTheTimeout) {
    Plug(nx4120_);
    StartService();
    const StationManagerInUse inUse;
    const Suspended suspended(L"stationmgr.exe");
    ASSERT_EQ(suspended.Count(), 1u);
    const ULONGLONG start = ::GetTickCount64();
    const CommandResult doctor = Tool(L"doctor --timeout 2");
    EXPECT_LT(::GetTickCount64() - start, 20000u) << "two seconds, and the other checks";
    EXPECT_EQ(doctor.exitCode, 3u);
    const std::string finding = FindingOf(doctor, "station manager answers");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << doctor.output;
    EXPECT_NE(finding.find("no answer within 2 seconds\n"), std::string::npos) << finding;
    EXPECT_FALSE(ProcessRuns(L"tessactl.exe")) << "the process that asked is ended";
}

TEST_F(DoctorWithManager, PartnersThatHangAreWaitedForAtTheSameTime) {
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"hangs"));
    const StationManagerInUse inUse;
    const Suspended suspended(L"stationmgr.exe");
    ASSERT_EQ(suspended.Count(), 1u);
    const ULONGLONG start = ::GetTickCount64();
    const CommandResult doctor = Tool(L"doctor --timeout 10");
    EXPECT_LT(::GetTickCount64() - start, 20000u) << "not one after the other";
    for (const char* partner : {"configuration library loadable", "station manager answers"})
        EXPECT_NE(FindingOf(doctor, partner).find("no answer within 10 seconds\n"), std::string::npos)
            << doctor.output;
}

TEST_F(DoctorWithManager, ServiceThatCannotStopIsLookedIntoAllTheSame) {
    Plug(nx4120_);
    StartService();
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    {
        const StationManagerInUse inUse;
        const Suspended suspended(L"stationmgr.exe");
        const std::size_t events = Count("Device event");
        Unplug(nx4120_);  // the worker now waits for the station manager
        EXPECT_TRUE(Eventually([&] { return Count("Device event") > events; }));
        const Service service;
        service.Stop();
        const CommandResult doctor = Tool(L"doctor --timeout 1");
        EXPECT_NE(FindingOf(doctor, "service running").find("just stopping\n"), std::string::npos)
            << doctor.output;
        EXPECT_TRUE(FindingOf(doctor, "plug-in running").starts_with("ok ")) << doctor.output;
        EXPECT_EQ(Tool(L"exceptions").exitCode, 0u);
    }
    EXPECT_TRUE(Eventually([] { return Service().State() == SERVICE_STOPPED; }));
}

TEST_F(Doctor, StationManagerThatCannotBeStartedIsToldByTheManagersClient) {
    EXPECT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe fault exit-at-start").exitCode, 0u);
    const CommandResult doctor = Tool(L"doctor --timeout 60");
    EXPECT_EQ(RunCommand(L"stationmgr.exe fault none").exitCode, 0u);
    RunCommand(L"stationmgr.exe unregister");
    const std::string finding = FindingOf(doctor, "station manager answers");
    EXPECT_TRUE(finding.starts_with("note ")) << "no card is there whose components it has\n"
                                              << doctor.output;
    EXPECT_NE(finding.find("CoCreateInstance"), std::string::npos) << finding;
}

TEST_F(Doctor, ConfigurationLibraryThatHangsHoldsItNoLongerThanTheTimeout) {
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"hangs"));
    Plug(nx4120_);
    const ULONGLONG start = ::GetTickCount64();
    const CommandResult doctor = Tool(L"doctor --timeout 1 --json");
    EXPECT_LT(::GetTickCount64() - start, 20000u);
    EXPECT_EQ(doctor.exitCode, 3u);
    EXPECT_TRUE(Contains(
        doctor, R"j({"schema":1,"what":"configuration library loadable","ok":false,"state":"problem",)j"
                R"j("found":"no answer within 1 seconds",)j"))
        << doctor.output;
    EXPECT_TRUE(Contains(
        doctor, R"j({"schema":1,"what":"NX4120: adapter present and active","ok":true,"state":"ok",)j"));
    EXPECT_FALSE(Contains(doctor, "access points visible")) << "it cannot know\n" << doctor.output;
    EXPECT_FALSE(ProcessRuns(L"tessactl.exe"));
}

TEST_F(Doctor, ConfigurationLibraryThatEndsItsCallerDoesNotEndTheDoctor) {
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"ends"));
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 3u);
    EXPECT_NE(FindingOf(doctor, "configuration library loadable")
                  .find("the process that asked it ended with 0x0000E0D5\n"),
              std::string::npos)
        << doctor.output;
}

TEST_F(Doctor, TellsErrorsInTheSystemsWordsAndOnOneLine) {
    const std::wstring folder = L"C:\\windows\\temp\\wrong_kind";
    std::filesystem::create_directories(folder + L"\\bin");
    std::ofstream(std::filesystem::path(folder + L"\\bin\\q5orvix64x.dll")) << "this is no library";
    ConfigurationLibraryLocation::Set(folder);
    const CommandResult doctor = Tool(L"doctor");
    const CommandResult status = Tool(L"status");
    const CommandResult show = Tool(L"show NX4120(XLI)");
    std::filesystem::remove_all(folder);
    const std::string finding = FindingOf(doctor, "configuration library loadable");
    EXPECT_NE(finding.find("(error 193) Hint: "), std::string::npos) << doctor.output;
    EXPECT_FALSE(Contains(doctor, "\n\n")) << doctor.output;
    for (const CommandResult& result : {doctor, status, show})
        EXPECT_FALSE(Contains(result, "FormatMessage")) << result.output;
    EXPECT_FALSE(Contains(show, "\n\n")) << show.output;
}

TEST_F(Doctor, PanelIsMissedOnlyWhereAnAccessPointIsMissing) {
    StartService();
    const CommandResult complete = Tool(L"doctor");
    EXPECT_EQ(complete.exitCode, 0u) << complete.output;
    EXPECT_TRUE(FindingOf(complete, "interface-setup panel").starts_with("note ")) << complete.output;
    store_.Delete(L"NX4120.XLI.1");
    EXPECT_TRUE(FindingOf(Tool(L"doctor"), "interface-setup panel").starts_with("PROBLEM "));
    constexpr wchar_t kPanel[] = L"C:\\windows\\syswow64\\q5panels.exe";
    ASSERT_TRUE(::CopyFileW((ProgramFolder() + L"q5panels.exe").c_str(), kPanel, TRUE));
    const CommandResult installed = Tool(L"doctor");
    EXPECT_TRUE(::DeleteFileW(kPanel));
    EXPECT_TRUE(FindingOf(installed, "interface-setup panel").starts_with("ok ")) << installed.output;
}

TEST_F(Doctor, ShowsWhatTheServiceManagerDoesWithTheService) {
    const Service service;
    SERVICE_DESCRIPTIONW description = {const_cast<wchar_t*>(L"watches \"all\" adapters")};
    EXPECT_TRUE(::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, &description));
    SERVICE_PRESHUTDOWN_INFO preshutdown = {45000};
    EXPECT_TRUE(::ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_PRESHUTDOWN_INFO, &preshutdown));
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_NE(FindingOf(doctor, "service description").find("  watches \"all\" adapters\n"),
              std::string::npos)
        << doctor.output;
    EXPECT_NE(FindingOf(doctor, "service time before shutdown").find("  45 s at most\n"), std::string::npos)
        << doctor.output;
    EXPECT_NE(FindingOf(doctor, "service start").find("by hand"), std::string::npos) << doctor.output;
    EXPECT_TRUE(Contains(Tool(L"doctor --json"), R"j("found":"watches \"all\" adapters")j"));
    // Not every system knows these.
    SERVICE_DELAYED_AUTO_START_INFO delayed = {};
    DWORD needed = 0;
    const bool isKnown = ::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
                                                reinterpret_cast<BYTE*>(&delayed), sizeof delayed, &needed);
    EXPECT_NE(FindingOf(doctor, "service start delayed").find(isKnown ? "  no\n" : "  not supported here\n"),
              std::string::npos)
        << doctor.output;
    EXPECT_NE(FindingOf(doctor, "service recovery"), "") << doctor.output;
}

TEST_F(DoctorOfBuilds, OneBuildIsWell) {
    const std::string build = TESSA_VERSION_TEXT ", commit " TESSA_COMMIT " of " TESSA_BUILD_DATE "\n";
    for (const bool runs : {false, true}) {
        if (runs) StartService();
        const CommandResult doctor = Tool(L"doctor");
        for (const auto* what : {"host", "plug-in", "trace formats"}) {
            const std::string finding = FindingOf(doctor, std::string("build of the ") + what);
            EXPECT_TRUE(finding.starts_with("ok ") && finding.ends_with("  " + build)) << doctor.output;
        }
        EXPECT_TRUE(FindingOf(doctor, "build of this tool").ends_with("  " + build)) << doctor.output;
    }
}

TEST_F(DoctorOfBuilds, PlugInThatWasReplacedWithoutARestartIsAProblemUntilIt) {
    StartService();
    Replace(Changed(TESSA_COMMIT));
    const CommandResult replaced = Tool(L"doctor");
    EXPECT_EQ(replaced.exitCode, 3u);
    const std::string finding = FindingOf(replaced, "build of the plug-in");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << replaced.output;
    EXPECT_NE(finding.find(" runs; its file is " TESSA_VERSION_TEXT ", commit "), std::string::npos)
        << finding;
    EXPECT_NE(finding.find("-> restart the service: "), std::string::npos) << finding;
    EXPECT_TRUE(
        Contains(Tool(L"doctor --json"),
                 R"j({"schema":1,"what":"build of the plug-in","ok":false,"state":"problem","found":"V)j"));
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    StartService();
    const CommandResult restarted = Tool(L"doctor");
    EXPECT_EQ(restarted.exitCode, 0u) << restarted.output;
    const std::string other = FindingOf(restarted, "build of the plug-in");
    EXPECT_TRUE(other.starts_with("note ")) << "another commit of one version\n" << restarted.output;
    EXPECT_NE(other.find("; the host is " TESSA_VERSION_TEXT ", commit " TESSA_COMMIT " of "),
              std::string::npos)
        << other;
    EXPECT_TRUE(FindingOf(restarted, "build of this tool").starts_with("note ")) << restarted.output;
    EXPECT_TRUE(FindingOf(restarted, "build of the trace formats").starts_with("note ")) << restarted.output;
}

TEST_F(DoctorOfBuilds, PlugInOfAnotherVersionThanTheHostIsAProblem) {
    Write(Changed(TESSA_VERSION_TEXT));
    const CommandResult doctor = Tool(L"doctor");
    const std::string finding = FindingOf(doctor, "build of the plug-in");
    EXPECT_TRUE(finding.starts_with("PROBLEM ")) << doctor.output;
    EXPECT_NE(finding.find("; the host is " TESSA_VERSION_TEXT ", "), std::string::npos) << finding;
    EXPECT_TRUE(FindingOf(doctor, "build of the host").starts_with("ok ")) << doctor.output;
}

TEST_F(DoctorOfBuilds, FileThatIsGoneDamagedOrForeignIsToldInWords) {
    const auto expectTold = [](const std::string& words) {
        const CommandResult doctor = Tool(L"doctor");
        EXPECT_NE(FindingOf(doctor, "build of the plug-in").find(words), std::string::npos) << doctor.output;
    };
    StartService();
    std::filesystem::rename(path_, folder_ + L"\\old.dll");
    expectTold("there is no such file any more; V");
    Write(plugIn_.substr(0, plugIn_.length() / 2));
    expectTold(" runs; its file: its version resource is damaged");
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    std::filesystem::copy_file(ProgramFolder() + L"plug_in_works.dll", path_,
                               std::filesystem::copy_options::overwrite_existing);
    expectTold("not known: it has no version resource");
    std::filesystem::remove(path_);
    expectTold("tessaplug.dll: there is no such file\n");
}

TEST_F(Doctor, BuildsAreNotKnownWithoutAService) {
    const CommandResult doctor = Tool(L"doctor --service \"no such\"");
    for (const auto* what : {"build of the host", "build of the plug-in"})
        EXPECT_TRUE(FindingOf(doctor, what).starts_with("note ")) << doctor.output;
    EXPECT_TRUE(FindingOf(doctor, "build of this tool").starts_with("ok ")) << doctor.output;
}

TEST_F(Doctor, JsonTellsNotesFromProblems) {
    StartService();
    const CommandResult doctor = Tool(L"doctor --json");
    EXPECT_EQ(doctor.exitCode, 0u) << doctor.output;
    EXPECT_TRUE(Contains(
        doctor, R"j({"schema":1,"what":"NX4120: adapter present and active","ok":true,"state":"note",)j"
                R"j("found":"none",)j"))
        << doctor.output;
    EXPECT_TRUE(Contains(doctor,
                         R"j({"schema":1,"what":"service running","ok":true,"state":"ok","found":"running",)j"
                         R"j("advice":""})j"))
        << doctor.output;
    const CommandResult named = Tool(L"doctor --json --service \"a\\\"b\\c\u00fc\"");
    EXPECT_TRUE(Contains(named, "\"found\":\"\\\"a\\\"b\\\\c\u00fc\\\" cannot be opened")) << named.output;
}
