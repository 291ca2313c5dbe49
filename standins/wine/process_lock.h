#pragma once

#include <windows.h>

/// A lock among the threads of a process that may be taken again by its holder, for std::lock_guard. At the
/// end of the process the system ends its other threads first, wherever they are: unlike the run time's
/// mutexes, this lock is not waited for then.
class ProcessLock {
  public:
    ProcessLock() { ::InitializeCriticalSection(&section_); }
    ~ProcessLock() = default;  // stays usable: other libraries may end after this one's objects
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

    void lock() { ::EnterCriticalSection(&section_); }
    void unlock() { ::LeaveCriticalSection(&section_); }

  private:
    CRITICAL_SECTION section_;
};
