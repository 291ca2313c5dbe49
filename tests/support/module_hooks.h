#pragma once

#include <mutex>
#include <string>
#include <vector>

/// What the module under test hands to its assertion and event-log entries, as the test programs define them.
namespace test_support {

struct Assertion {
    std::wstring expression;
    std::wstring sourcePath;
    unsigned int line;
};

struct SysLogEntry {
    unsigned int eventType;
    unsigned int eventId;
    bool operator==(const SysLogEntry&) const = default;
};

/// Collects the assertions and event-log entries of its lifetime, from any thread. Only one lives at a time.
/// An assertion that is raised while none lives fails the running test.
class ModuleHooks {
  public:
    ModuleHooks();
    ~ModuleHooks();
    ModuleHooks(const ModuleHooks&) = delete;
    ModuleHooks& operator=(const ModuleHooks&) = delete;

    std::vector<Assertion> Assertions() const;
    /// The expressions only, in order.
    std::vector<std::wstring> AssertedExpressions() const;
    std::vector<SysLogEntry> SysLogEntries() const;

    void Add(Assertion assertion);
    /// Throws if a test asked for it.
    void Add(SysLogEntry entry);

    bool throwFromSysLog = false;

  private:
    mutable std::mutex lock_;
    std::vector<Assertion> assertions_;
    std::vector<SysLogEntry> sysLogEntries_;
};

}  // namespace test_support
