#include "data_folder.h"

#include <windows.h>

namespace wine_gap {

std::wstring DataFolder() {
    wchar_t windows[MAX_PATH] = {};
    ::GetSystemWindowsDirectoryW(windows, MAX_PATH);
    std::wstring folder = std::wstring(windows) + L"\\winegap";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

}  // namespace wine_gap
