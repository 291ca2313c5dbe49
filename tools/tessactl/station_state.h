#pragma once

#include <string>
#include <vector>

namespace tessactl {

/// The station at one moment, as the plug-in sees it: through the same classes.
struct StationState {
    struct InterprocessObjects {
        std::wstring mutex;
        bool mutexExists = false;
        std::wstring sharedMemory;
        bool sharedMemoryExists = false;
    };
    struct AccessPoint {
        std::wstring name;
        bool installed = false;
        bool exists = false;
        bool hidden = false;
        /// "visible", "hidden", "missing" or "not installed".
        const char* State() const;
        bool operator==(const AccessPoint&) const = default;
    };
    struct Model {
        std::wstring name;
        std::wstring catalogName;  ///< in the station manager's catalog; empty if it is not listed there
        std::vector<std::wstring> devicePaths;
        std::string devicesError;  ///< why the device paths are not known, in UTF-8; empty if they are
        std::vector<AccessPoint> accessPoints;
    };

    bool plugInRuns = false;
    std::vector<InterprocessObjects> interprocess;
    std::vector<Model> models;
    std::wstring libraryPath;
    bool libraryIsRegistered = false;
    std::string libraryError;  ///< why the access points are not known, in UTF-8; empty if they are
};

/// Looks at everything. What cannot be had is missing in the result; nothing is thrown for it.
StationState ReadStation();

/// The same without asking the configuration library, which may never answer: how the access points stand is
/// not known.
StationState ReadStationWithoutLibrary();

/// The default log devices that are installed.
/// @throws std::exception if the configuration library cannot tell
std::vector<std::string> InstalledLogDevices();

/// Adapters and access points only.
std::vector<StationState::Model> ReadModels(std::string& libraryError);

/// The same step by step: the models with the names of their access points, which adapters are there, and how
/// the access points stand.
std::vector<StationState::Model> SupportedModels();
void ReadAdapters(std::vector<StationState::Model>& models);
/// @return why the access points are not known, in UTF-8; empty if they are
std::string ReadAccessPoints(std::vector<StationState::Model>& models);

/// Takes out the access points, of which nothing is known.
void ForgetAccessPoints(std::vector<StationState::Model>& models);

/// Whether somebody holds the plug-in's instance lock.
bool InstanceLockExists();

}  // namespace tessactl
