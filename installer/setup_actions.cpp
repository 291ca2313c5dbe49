#include <windows.h>

#include <chrono>
#include <cwchar>
#include <exception>
#include <memory>
#include <msi.h>
#include <msiquery.h>
#include <stdexcept>
#include <string>

#include "log_file.h"
#include "product_files.h"
#include "protected_folder.h"
#include "service_control.h"
#include "setup_plan.h"
#include "toolbox.h"
#include "wine_gap_loader.h"

// What the installer has done beyond copying files. Windows Installer calls these exports: the first one at
// the beginning, as the user who installs; the others while it makes its changes, or takes them back, as the
// system. They are given the plan in the property CustomActionData.
namespace installer {
namespace {

constexpr wchar_t kProduct[] = L"Tessaplug: ";

/// Calls of the installer in whose session an action runs.
class Session {
  public:
    explicit Session(MSIHANDLE handle) : handle_(handle) {}

    std::wstring Property(const wchar_t* name) const {
        std::wstring value;
        DWORD length = 0;
        wchar_t none[1] = {};
        if (::MsiGetPropertyW(handle_, name, none, &length) != ERROR_MORE_DATA) return value;
        value.resize(++length);
        if (::MsiGetPropertyW(handle_, name, value.data(), &length) != ERROR_SUCCESS) return {};
        value.resize(length);
        return value;
    }
    void SetProperty(const wchar_t* name, const std::wstring& value) {
        ::MsiSetPropertyW(handle_, name, value.c_str());
    }
    /// Shows a text if the installer shows anything, and writes it into its log.
    void Message(INSTALLMESSAGE kind, const std::wstring& text) {
        PMSIHANDLE record = ::MsiCreateRecord(1);
        ::MsiRecordSetStringW(record, 0, L"[1]");
        ::MsiRecordSetStringW(record, 1, (kProduct + text).c_str());
        ::MsiProcessMessage(handle_, kind, record);
    }

  private:
    MSIHANDLE handle_;
};

/// The host's words: into the installer's log, and what went wrong kept for the user.
class SetupMessages : public host::MessagesIf {
  public:
    explicit SetupMessages(Session& session) : session_(session) {}
    void Tell(const std::wstring& line) override { session_.Message(INSTALLMESSAGE_INFO, line); }
    void Complain(const std::wstring& text) override {
        Tell(text);
        complaints_ += (complaints_.empty() ? L"" : L" ") + text;
    }
    const std::wstring& Complaints() const { return complaints_; }

  private:
    Session& session_;
    std::wstring complaints_;
};

/// The service's commands in the installer's session.
class Service {
  public:
    explicit Service(Session& session)
        : messages_(std::make_shared<SetupMessages>(session)),
          control_(std::make_shared<windows_api::Advapi32>(), std::chrono::seconds(30), messages_) {}

    host::ServiceControl* operator->() { return &control_; }
    const std::wstring& Complaints() const { return messages_->Complaints(); }
    /// @throws std::runtime_error with the host's words
    void Require(host::ExitCode result) const {
        if (result != host::ExitCode::kSuccess)
            throw std::runtime_error(toolbox::WstringToString(Complaints(), CP_UTF8));
    }
    /// @throws std::runtime_error if it still runs
    void Stop(const host::Options& options) {
        const host::ExitCode stopped = control_.Stop(options);
        if (stopped != host::ExitCode::kNotRunning && stopped != host::ExitCode::kEndedByForce)
            Require(stopped);
    }

  private:
    std::shared_ptr<SetupMessages> messages_;
    host::ServiceControl control_;
};

/// Runs one action; what it throws ends the installation, and is shown.
template <typename Action>
UINT Run(MSIHANDLE handle, Action action) noexcept {
    Session session(handle);
    try {
        action(session);
        return ERROR_SUCCESS;
    } catch (const std::exception& error) {
        session.Message(INSTALLMESSAGE_ERROR, toolbox::Widened(error.what(), CP_UTF8));
    } catch (...) {
        session.Message(INSTALLMESSAGE_ERROR, L"an action failed for an unknown reason.");
    }
    return ERROR_INSTALL_FAILURE;
}

/// The same for an action that has the plan. Without one there is nothing to do.
template <typename Action>
UINT RunPlanned(MSIHANDLE handle, Action action) noexcept {
    return Run(handle, [&](Session& session) {
        const std::wstring plan = session.Property(L"CustomActionData");
        if (!plan.empty()) action(session, ToPlan(plan));
    });
}

/// @throws std::runtime_error if Windows is too old: the programs would not even load
void RequireWindows() {
    constexpr DWORD kOldestBuild = 14393;  // Windows 10 1607, Windows Server 2016
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof version;
    // The documented functions tell a program what its manifest says that it knows, and this one is the
    // installer's.
    const auto getVersion = reinterpret_cast<LONG(WINAPI*)(RTL_OSVERSIONINFOW*)>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    if (IsWine() || getVersion == nullptr || getVersion(&version) != 0) return;
    if (version.dwBuildNumber < kOldestBuild)
        throw std::runtime_error("it needs Windows 10 (1607) or Windows Server 2016, or a later one.");
}

/// @throws std::runtime_error if the disk has no room for the files. What the installer reckons by itself
/// leaves out the copies that are made of the files that are there.
void RequireSpace(const Session& session, const std::wstring& folder, bool isInstalled) {
    constexpr ULONGLONG kMegabyte = 1024ULL * 1024;
    const ULONGLONG files = std::wcstoull(session.Property(L"SizeOfFiles").c_str(), nullptr, 10);
    const ULONGLONG needed = isInstalled ? 3 * files : files;  // two copies for a while, see product_files.h
    std::wstring disk = folder;
    while (::GetFileAttributesW(disk.c_str()) == INVALID_FILE_ATTRIBUTES && disk.length() > 3)
        disk = disk.substr(0, disk.find_last_of(L'\\', disk.length() - 2) + 1);
    ULARGE_INTEGER free = {};
    if (!::GetDiskFreeSpaceExW(disk.c_str(), &free, nullptr, nullptr) || free.QuadPart >= needed) return;
    throw std::runtime_error("there is no room on the disk of " + toolbox::WstringToString(folder, CP_UTF8) +
                             ": " + std::to_string(needed / kMegabyte + 1) + " MB are needed, " +
                             std::to_string(free.QuadPart / kMegabyte) + " are there.");
}

/// Whether another version has taken the place of the one that is removed. Windows Installer does not call
/// the actions of such a removal, as their conditions say; this is for one that does.
bool IsReplaced(const Session& session) {
    const std::wstring component = session.Property(L"SharedComponent");
    const std::wstring self = session.Property(L"ProductCode");
    wchar_t product[39] = {};
    for (DWORD index = 0; ::MsiEnumClientsW(component.c_str(), index, product) == ERROR_SUCCESS; ++index)
        if (self != product) return true;
    return false;
}

std::wstring FolderOf(const std::wstring& file) {
    return file.substr(0, file.rfind(L'\\'));
}

}  // namespace
}  // namespace installer

using installer::Run;
using installer::RunPlanned;
using installer::Service;
using installer::Session;
using installer::SetupPlan;

/// Looks at the machine, refuses what cannot go well, and makes the plan of everything that follows.
extern "C" UINT WINAPI PrepareSetup(MSIHANDLE handle) {
    return Run(handle, [](Session& session) {
        Service service(session);
        const auto found = service->Find(host::Options().name);
        if (!service.Complaints().empty()) service.Require(host::ExitCode::kFailed);
        const std::wstring folder = session.Property(L"INSTALLDIR");
        const bool isRemoval = session.Property(L"REMOVE") == L"ALL";
        SetupPlan plan;
        if (isRemoval && installer::IsReplaced(session)) return;
        if (!isRemoval) installer::RequireWindows();
        try {
            plan = installer::MakePlan(folder, found,
                                       {session.Property(L"SERVICESTART"), session.Property(L"LOGFOLDER"),
                                        session.Property(L"STARTSERVICE")});
        } catch (const std::invalid_argument&) {
            if (!isRemoval) throw;
            plan.folder = folder;  // a service that is somebody else's is left alone
        }
        if (!isRemoval) installer::RequireSpace(session, folder, plan.previous.has_value());
        for (const wchar_t* action :
             {L"PutProductBack", L"ReleaseProductFiles", L"TakeServiceBack", L"SetUpService",
              L"StartInstalledService", L"RemoveInstalledService", L"RemoveWhatIsLeft"})
            session.SetProperty(action, ToText(plan));
    });
}

/// Stops the service and makes its files free, before any of them is replaced or removed.
extern "C" UINT WINAPI ReleaseProductFiles(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        Service service(session);
        if (plan.previous) service.Stop(OptionsOf(*plan.previous));
        installer::KeepFiles(plan.folder);
        installer::ReleaseFiles(plan.folder);
    });
}

/// Takes ReleaseProductFiles back, when everything else has been.
extern "C" UINT WINAPI PutProductBack(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        installer::RestoreFiles(plan.folder);
        if (!plan.previous) return;
        Service service(session);
        const host::Options options = OptionsOf(*plan.previous);
        if (service->Find(options.name))
            service->Update(options);
        else
            service->Install(options);
        if (plan.wasRunning) service->Start(options);
    });
}

extern "C" UINT WINAPI SetUpService(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        Service service(session);
        const host::Options options = OptionsOf(plan.wanted);
        service.Require(plan.previous ? service->Update(options) : service->Install(options));
    });
}

/// Takes SetUpService back, of a first installation.
extern "C" UINT WINAPI TakeServiceBack(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        if (plan.previous) return;
        Service service(session);
        const host::Options options = OptionsOf(plan.wanted);
        if (service->Find(options.name)) service->Uninstall(options);
        installer::RemoveLogs(options.log);
    });
}

/// At the end, when nothing can be taken back any more: a service that does not start stays installed, and
/// the user learns why.
extern "C" UINT WINAPI StartInstalledService(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        installer::ForgetFiles(plan.folder);
        if (!plan.startAtTheEnd) return;
        Service service(session);
        const host::ExitCode started = service->Start(OptionsOf(plan.wanted));
        if (started == host::ExitCode::kSuccess || started == host::ExitCode::kAlreadyRunning) return;
        session.Message(INSTALLMESSAGE_WARNING,
                        L"everything is installed, but the service did not start: " + service.Complaints() +
                            L" \"tessactl doctor\" says what to do; then start it with \"tessahost start\".");
    });
}

extern "C" UINT WINAPI RemoveInstalledService(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        if (!plan.previous) return;
        Service service(session);
        service.Require(service->Uninstall(OptionsOf(*plan.previous)));
    });
}

/// At the end of a removal: what the product wrote by itself, but for what somebody may still need.
extern "C" UINT WINAPI RemoveWhatIsLeft(MSIHANDLE handle) {
    return RunPlanned(handle, [](Session& session, const SetupPlan& plan) {
        const std::wstring log = plan.previous ? OptionsOf(*plan.previous).log : L"";
        installer::ForgetFiles(plan.folder);
        if (!log.empty()) installer::RemoveLogs(log);
        ::RemoveDirectoryW(operating_system::ProductDataFolder().c_str());
        installer::RemoveEventSource(plan.folder);
        installer::RemoveFolder(plan.folder);
        std::wstring kept;
        for (const std::wstring& file :
             installer::DumpsAndRecordings(log.empty() ? L"" : installer::FolderOf(log)))
            kept += L"\n" + file;
        if (!kept.empty())
            session.Message(INSTALLMESSAGE_WARNING,
                            L"these memory dumps and recordings are kept; delete them when nobody needs them "
                            L"any more:" +
                                kept);
    });
}
