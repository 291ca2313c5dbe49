#pragma once

#include <string>
#include <vector>

#include "replacement.h"

namespace wine_gap {

/// What each subject replaces, and what it has to start first. Starting is done by WineGapStart, outside of
/// the loader's lock; the replacements themselves may run inside it and wait for no thread.
std::vector<Replacement> DeviceNotificationReplacements();
DWORD StartDeviceNotifications();

std::vector<Replacement> EventLogReplacements();

std::vector<Replacement> TraceProviderReplacements();
DWORD StartTraceProviders();

std::vector<Replacement> TraceControllerReplacements();

/// A folder of the machine for the stand-in's files, made if necessary.
std::wstring DataFolder();

/// Holds a machine-wide named mutex, which every user may open, for one scope. A holder that died does not
/// matter.
class MachineLock {
  public:
    explicit MachineLock(const wchar_t* name);
    ~MachineLock();
    MachineLock(const MachineLock&) = delete;
    MachineLock& operator=(const MachineLock&) = delete;

  private:
    HANDLE mutex_;
};

}  // namespace wine_gap
