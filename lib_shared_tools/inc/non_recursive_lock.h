#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>

/// A lock that other threads wait for and its own thread is refused: what is guarded by it may call back into
/// its own entry, which must not wait for itself.
class NonRecursiveLock {
  public:
    /// Holds the lock for one scope, or nothing if the thread holds it already.
    class Guard {
      public:
        explicit Guard(NonRecursiveLock& lock) : lock_(lock), holds_(lock.Enter()) {}
        ~Guard() {
            if (holds_) lock_.Leave();
        }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        explicit operator bool() const { return holds_; }

      private:
        NonRecursiveLock& lock_;
        const bool holds_;
    };

  private:
    bool Enter() {
        if (owner_ == ::GetCurrentThreadId()) return false;
        mutex_.lock();
        owner_ = ::GetCurrentThreadId();
        return true;
    }
    void Leave() {
        owner_ = 0;
        mutex_.unlock();
    }

    std::mutex mutex_;
    std::atomic<DWORD> owner_ = 0;
};
