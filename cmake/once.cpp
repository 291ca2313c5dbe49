#include <windows.h>

#include <atomic>

// What is made once, at its first use: function-local static objects, and what the C++ run time and its
// thread library make of their own, for every DLL built here. The run time's way takes memory for that;
// without memory it ends the process, or waits for ever. This one takes none.

namespace {

/// What compiled code has of such an object. It looks at the first byte itself, the others belong to these
/// functions.
struct Guard {
    std::atomic<bool> isMade;
    std::atomic<bool> isBeingMade;
};

SRWLOCK lock = SRWLOCK_INIT;  // guards the guards, never held while an object is made
CONDITION_VARIABLE changed = CONDITION_VARIABLE_INIT;

/// @return true if the caller is to make the object, false if it is made
bool Begin(Guard* guard) {
    ::AcquireSRWLockExclusive(&lock);
    while (guard->isBeingMade)
        ::SleepConditionVariableSRW(&changed, &lock, INFINITE, 0);
    const bool isToMake = !guard->isMade;
    guard->isBeingMade = isToMake;
    ::ReleaseSRWLockExclusive(&lock);
    return isToMake;
}

void End(Guard* guard, bool isMade) {
    ::AcquireSRWLockExclusive(&lock);
    guard->isMade = isMade;
    guard->isBeingMade = false;
    ::ReleaseSRWLockExclusive(&lock);
    ::WakeAllConditionVariable(&changed);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are those of the ABI and of the linker's option

extern "C" int __cxa_guard_acquire(Guard* guard) {
    return Begin(guard) ? 1 : 0;
}

extern "C" void __cxa_guard_release(Guard* guard) {
    End(guard, true);
}

/// The making has ended by an exception: the next one who comes tries again.
extern "C" void __cxa_guard_abort(Guard* guard) {
    End(guard, false);
}

/// In the place of pthread_once, whose variable has room for a guard and begins with zero like one.
extern "C" int __wrap_pthread_once(Guard* guard, void (*make)()) {
    if (guard->isMade || !Begin(guard)) return 0;
    try {
        make();
    } catch (...) {
        End(guard, false);
        throw;
    }
    End(guard, true);
    return 0;
}

// NOLINTEND(bugprone-reserved-identifier)
