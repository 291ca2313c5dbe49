#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "process_census.h"

/// What tests ask of real kernel objects.
namespace test_support {

/// An object name that no other process and no other test uses.
inline std::wstring UniqueName(std::size_t length = 0) {
    static int count = 0;
    std::wstring name =
        L"tessaplug_test_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count);
    if (length > name.length()) name.append(length - name.length(), L'x');
    return name;
}

inline std::string Narrow(const std::wstring& name) {
    return {name.begin(), name.end()};
}

/// Whether another thread gets a mutex at once; it gives it back.
inline bool AcquiredByAnotherThread(HANDLE mutex) {
    bool acquired = false;
    std::thread([mutex, &acquired] {
        acquired = ::WaitForSingleObject(mutex, 0) == WAIT_OBJECT_0;
        if (acquired) ::ReleaseMutex(mutex);
    }).join();
    return acquired;
}

/// Whether an object was made with a null DACL, which lets every user in. An object that was made without a
/// security descriptor has none, or the one of its creator's token.
/// @param handle with READ_CONTROL
inline bool OpenToEveryUser(HANDLE handle) {
    DWORD size = 0;
    ::GetKernelObjectSecurity(handle, DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    std::vector<std::byte> descriptor(size);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    ACL* acl = nullptr;
    return ::GetKernelObjectSecurity(handle, DACL_SECURITY_INFORMATION, descriptor.data(), size, &size) &&
           ::GetSecurityDescriptorDacl(descriptor.data(), &present, &acl, &defaulted) && present &&
           acl == nullptr;
}

/// What the process keeps of a handle.
inline OpenHandle Properties(HANDLE value) {
    const auto handles = OpenHandles();
    const auto found = std::ranges::find(handles, value, &OpenHandle::value);
    return found != handles.end() ? *found : OpenHandle{};
}

/// The handles that an action opens and does not close.
template <typename Action>
std::vector<OpenHandle> OpenedBy(Action action) {
    const auto before = OpenHandles();
    action();
    std::vector<OpenHandle> opened = OpenHandles();
    std::erase_if(opened, [&before](const OpenHandle& handle) {
        return std::ranges::find(before, handle.value, &OpenHandle::value) != before.end();
    });
    return opened;
}

}  // namespace test_support
