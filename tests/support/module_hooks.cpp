#include "module_hooks.h"

#include <atomic>
#include <gtest/gtest.h>
#include <utility>

#include "exception_history.h"
#include "modul_assert.h"

namespace test_support {
namespace {

std::atomic<ModuleHooks*> liveHooks = nullptr;

/// A test program's stand-in for module attach and detach.
struct Diagnostics {
    Diagnostics() { modul_exception::InitializeExceptionHistory(); }
    ~Diagnostics() { modul_exception::CleanupExceptionHistory(); }
} diagnostics;

}  // namespace

ModuleHooks::ModuleHooks() {
    if (liveHooks.exchange(this) != nullptr) ADD_FAILURE() << "one ModuleHooks at a time";
}

ModuleHooks::~ModuleHooks() {
    liveHooks = nullptr;
}

std::vector<Assertion> ModuleHooks::Assertions() const {
    const std::lock_guard guard(lock_);
    return assertions_;
}

std::vector<std::wstring> ModuleHooks::AssertedExpressions() const {
    const std::lock_guard guard(lock_);
    std::vector<std::wstring> expressions;
    for (const Assertion& assertion : assertions_)
        expressions.push_back(assertion.expression);
    return expressions;
}

std::vector<SysLogEntry> ModuleHooks::SysLogEntries() const {
    const std::lock_guard guard(lock_);
    return sysLogEntries_;
}

void ModuleHooks::Add(Assertion assertion) {
    const std::lock_guard guard(lock_);
    assertions_.push_back(std::move(assertion));
}

void ModuleHooks::Add(SysLogEntry entry) {
    if (throwFromSysLog) throw 42;
    const std::lock_guard guard(lock_);
    sysLogEntries_.push_back(entry);
}

}  // namespace test_support

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    if (test_support::ModuleHooks* hooks = test_support::liveHooks)
        hooks->Add({expression, sourcePath, line});
    else
        ADD_FAILURE() << "assertion raised: " << testing::PrintToString(std::wstring(expression)) << " at "
                      << testing::PrintToString(std::wstring(sourcePath)) << " line " << line;
}

void _ModulSysLog_00(unsigned int eventType, unsigned int eventId) {
    if (test_support::ModuleHooks* hooks = test_support::liveHooks)
        hooks->Add(test_support::SysLogEntry{eventType, eventId});
}
