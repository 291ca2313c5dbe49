#pragma once

#include <windows.h>

/// Puts the calling thread's last error back when it goes out of scope, so that code that runs between a
/// failing call and its report cannot overwrite the reason.
class LastErrorKeeper {
  public:
    LastErrorKeeper() : lastError_(::GetLastError()) {}
    ~LastErrorKeeper() { ::SetLastError(lastError_); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD lastError_;
};
