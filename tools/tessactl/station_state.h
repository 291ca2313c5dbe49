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

/// The default log devices that are installed.
/// @throws std::exception if the configuration library cannot tell
std::vector<std::string> InstalledLogDevices();

/// Adapters and access points only.
std::vector<StationState::Model> ReadModels(std::string& libraryError);

}  // namespace tessactl
