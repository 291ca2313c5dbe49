#include "station_state.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>

#include "library_search.h"
#include "logdevice_db.h"
#include "quelm_orvix.h"
#include "tessaplug_cp_environ.h"
#include "tessaplug_database.h"
#include "text.h"
#include "toolbox.h"
#include "unique_handle.h"
#include "win_interprocess.h"
#include "win_pnp.h"

namespace tessactl {
namespace {

constexpr wchar_t kGlobal[] = L"Global\\";

bool MutexExists(const std::wstring& name) {
    return UniqueKernelHandle(::OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())) ||
           ::GetLastError() == ERROR_ACCESS_DENIED;
}

std::vector<StationState::InterprocessObjects> ReadInterprocessObjects() {
    std::vector<StationState::InterprocessObjects> all;
    const auto models = tessaplug::CpInterprocessDatabaseIf::get_supported_cps();
    for (const auto& model : *models) {
        StationState::InterprocessObjects objects;
        objects.mutex = kGlobal + model->Get_GlobalCiApiMutexName();
        objects.mutexExists = MutexExists(objects.mutex);
        objects.sharedMemory = kGlobal + model->Get_GlobalCiSharedMemoryName();
        objects.sharedMemoryExists = interprocess::CSharedMemory().Exists(objects.sharedMemory);
        all.push_back(objects);
    }
    return all;
}

void ReadAccessPoint(StationState::AccessPoint& point, const std::vector<std::string>& installed) {
    const std::string narrow = toolbox::WstringToString(point.name);
    point.installed = std::ranges::find(installed, narrow) != installed.end();
    const auto logDevice = korvane::LogDeviceDatabaseFactory().create_from_log_device(narrow);
    point.exists = logDevice->Exists();
    // Without the flag it is visible.
    try {
        point.hidden = point.exists && logDevice->ReadStringParameter(L"hidden") == L"true";
    } catch (const std::runtime_error&) {
        point.hidden = false;
    }
}

}  // namespace

const char* StationState::AccessPoint::State() const {
    if (!installed) return "not installed";
    if (!exists) return "missing";
    return hidden ? "hidden" : "visible";
}

std::vector<StationState::Model> SupportedModels() {
    std::vector<StationState::Model> models;
    for (const auto& record : tessaplug::CommunicationProcessorDbIf::create_database()) {
        StationState::Model model;
        model.name = record->DisplayedDeviceName();
        model.catalogName = record->StationManagerCatalogName();
        for (const std::wstring& name : record->SupportedLogDevices())
            model.accessPoints.push_back({name});
        models.push_back(std::move(model));
    }
    return models;
}

void ReadAdapters(std::vector<StationState::Model>& models) {
    const auto records = tessaplug::CommunicationProcessorDbIf::create_database();
    for (std::size_t i = 0; i < models.size(); ++i) {
        try {
            operating_system::plug_and_play::DeviceInterfaceFactory()
                .create_from(records[i]->DeviceInterfaceGuid())
                ->Get_DeviceInterfaceDetails(models[i].devicePaths);
        } catch (const std::exception& error) {  // also a device that vanishes while it is looked at
            models[i].devicesError = InWords(error);
        }
    }
}

std::vector<std::string> InstalledLogDevices() {
    // As the service does it, so that the library is asked under its conditions.
    static operating_system::SearchedFolder libraryFolder;
    libraryFolder.Set(quelm::LibraryRegistration().Folder());
    // To load the library from such a path would end this process.
    const std::size_t length = quelm::ConfigurationLibraryPath().length();
    if (length >= MAX_PATH)
        throw std::runtime_error("the path of the configuration library has " + std::to_string(length) +
                                 " characters; from 260 on the service ends when it loads it");
    return korvane::DefaultLogDeviceDatabaseIf::Create()->Installed();
}

std::string ReadAccessPoints(std::vector<StationState::Model>& models) {
    try {
        const auto installed = InstalledLogDevices();
        for (auto& model : models)
            for (auto& point : model.accessPoints)
                ReadAccessPoint(point, installed);
        return {};
    } catch (const std::exception& error) {
        return InWords(error);
    }
}

std::vector<StationState::Model> ReadModels(std::string& libraryError) {
    auto models = SupportedModels();
    ReadAdapters(models);
    libraryError = ReadAccessPoints(models);
    if (!libraryError.empty()) ForgetAccessPoints(models);
    return models;
}

void ForgetAccessPoints(std::vector<StationState::Model>& models) {
    for (auto& model : models)
        model.accessPoints.clear();
}

bool InstanceLockExists() {
    return MutexExists(kGlobal + tessaplug::ServiceDbIf::create_database()->GlobalInstanceLockName());
}

StationState ReadStationWithoutLibrary() {
    StationState state;
    state.plugInRuns = InstanceLockExists();
    state.interprocess = ReadInterprocessObjects();
    state.libraryPath = quelm::ConfigurationLibraryPath(&state.libraryIsRegistered);
    state.models = SupportedModels();
    ReadAdapters(state.models);
    return state;
}

StationState ReadStation() {
    StationState state = ReadStationWithoutLibrary();
    state.libraryError = ReadAccessPoints(state.models);
    if (!state.libraryError.empty()) ForgetAccessPoints(state.models);
    return state;
}

}  // namespace tessactl
