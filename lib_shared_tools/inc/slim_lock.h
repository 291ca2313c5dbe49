#pragma once

#include <windows.h>

#include <chrono>
#include <mutex>

/// Windows' own exclusive lock, where a thread that waits for another one is on the way of an event: it asks
/// nothing of the system but the waking, which the run time's lock and condition do several times, and it
/// cannot fail. For std::lock_guard and std::unique_lock.
class SlimLock {
  public:
    SlimLock() = default;
    SlimLock(const SlimLock&) = delete;
    SlimLock& operator=(const SlimLock&) = delete;

    void lock() noexcept { ::AcquireSRWLockExclusive(&lock_); }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&lock_); }

  private:
    friend class SlimCondition;
    SRWLOCK lock_ = SRWLOCK_INIT;
};

/// What threads wait for that hold a SlimLock.
class SlimCondition {
  public:
    using Guard = std::unique_lock<SlimLock>;

    SlimCondition() = default;
    SlimCondition(const SlimCondition&) = delete;
    SlimCondition& operator=(const SlimCondition&) = delete;

    /// Whoever has made the condition true calls this, best when he has left the lock.
    void WakeAll() noexcept { ::WakeAllConditionVariable(&changed_); }

    template <typename Condition>
    void Wait(Guard& guard, Condition condition) {
        while (!condition())
            Sleep(guard, INFINITE);
    }

    /// @return whether the condition is true
    template <typename Condition>
    bool WaitFor(Guard& guard, std::chrono::milliseconds limit, Condition condition) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            Sleep(guard, static_cast<DWORD>(left.count()));
        }
        return true;
    }

  private:
    void Sleep(Guard& guard, DWORD milliseconds) {
        ::SleepConditionVariableSRW(&changed_, &guard.mutex()->lock_, milliseconds, 0);
    }

    CONDITION_VARIABLE changed_ = CONDITION_VARIABLE_INIT;
};
