#pragma once

#include <optional>
#include <string>

#include "service_control.h"

namespace installer {

/// How the service is set up, as a text can hold it: its options are in the command line but for the start.
struct ServiceSetUp {
    std::wstring commandLine;
    bool automaticStart = false;
    bool delayedStart = false;
};

/// @throws std::runtime_error if the command line is none of the host's
host::Options OptionsOf(const ServiceSetUp& setUp);

/// What an installation, update, repair or removal is going to do. It is made up at the beginning, as the user,
/// and done later by actions of the installer that run as the system and are given nothing but a text.
struct SetupPlan {
    std::wstring folder;                   ///< where the product is, with a backslash at its end
    std::optional<ServiceSetUp> previous;  ///< the installed service, if it is this product's
    ServiceSetUp wanted;
    bool wasRunning = false;
    bool startAtTheEnd = false;
};

std::wstring ToText(const SetupPlan& plan);

/// @throws std::invalid_argument if the text is no plan
SetupPlan ToPlan(const std::wstring& text);

/// What the user asked for; empty is what stays as it is, or the default of a new installation.
struct Wishes {
    std::wstring start;         ///< SERVICESTART: "automatic", "delayed" or "manual"
    std::wstring logFolder;     ///< LOGFOLDER: full path
    std::wstring startService;  ///< STARTSERVICE: "1" or "0"
};

/// @param folder the product's folder, with a backslash at its end
/// @param service the service of the host's name, if there is one
/// @throws std::invalid_argument with sentences for the user if a wish cannot be met or the service is somebody
/// else's
SetupPlan MakePlan(const std::wstring& folder, const std::optional<host::InstalledService>& service,
                   const Wishes& wishes);

}  // namespace installer
