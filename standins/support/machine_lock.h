#pragma once

#include <windows.h>

#include <memory>

/// Holds a machine-wide lock, a named mutex that every user may open, for one scope. A process that died
/// holding it does not matter: what is guarded by such a lock is never half-written.
class MachineLock {
  public:
    /// @param name e.g. L"Global\\NAME"
    explicit MachineLock(const wchar_t* name) {
        SECURITY_DESCRIPTOR everyone;
        ::InitializeSecurityDescriptor(&everyone, SECURITY_DESCRIPTOR_REVISION);
        ::SetSecurityDescriptorDacl(&everyone, TRUE, nullptr, FALSE);
        SECURITY_ATTRIBUTES attributes = {sizeof attributes, &everyone, FALSE};
        mutex_.reset(::CreateMutexW(&attributes, FALSE, name));
        if (mutex_) ::WaitForSingleObject(mutex_.get(), INFINITE);
    }
    ~MachineLock() {
        if (mutex_) ::ReleaseMutex(mutex_.get());
    }
    MachineLock(const MachineLock&) = delete;
    MachineLock& operator=(const MachineLock&) = delete;

  private:
    struct Closer {
        void operator()(HANDLE handle) const { ::CloseHandle(handle); }
    };
    std::unique_ptr<void, Closer> mutex_;
};
