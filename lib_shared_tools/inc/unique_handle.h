#pragma once

#include <windows.h>

#include <utility>

/// Owns one system handle and closes it with `Close`. Both null and INVALID_HANDLE_VALUE count as empty, as
/// system calls use either for "none".
template <typename Handle, auto Close>
class UniqueHandle {
  public:
    UniqueHandle() = default;
    explicit UniqueHandle(Handle handle) : handle_(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueHandle() { reset(); }

    Handle get() const { return handle_; }
    explicit operator bool() const { return IsValid(handle_); }
    Handle release() { return std::exchange(handle_, nullptr); }
    void reset(Handle handle = nullptr) {
        const Handle old = std::exchange(handle_, handle);
        if (IsValid(old)) Close(old);
    }

  private:
    static bool IsValid(Handle handle) {
        return handle != nullptr && reinterpret_cast<LONG_PTR>(handle) != -1;
    }
    Handle handle_ = nullptr;
};

using UniqueKernelHandle = UniqueHandle<HANDLE, [](HANDLE handle) { ::CloseHandle(handle); }>;
using UniqueModule = UniqueHandle<HMODULE, [](HMODULE module) { ::FreeLibrary(module); }>;
using UniqueRegistryKey = UniqueHandle<HKEY, [](HKEY key) { ::RegCloseKey(key); }>;
