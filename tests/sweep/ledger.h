#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "system_calls.h"

namespace sweep {

/// What the plug-in has acquired and not yet released. From any thread.
class Ledger {
  public:
    void Acquire(Resource resource, ULONG_PTR value, std::string origin);
    /// Does nothing if it is not in the ledger.
    void Release(Resource resource, ULONG_PTR value);
    /// What call acquired it; empty if it is not in the ledger.
    std::string OriginOf(Resource resource, ULONG_PTR value) const;
    /// The origins of all that is left.
    std::vector<std::string> Left() const;

  private:
    struct Entry {
        Resource resource;
        ULONG_PTR value;
        std::string origin;
    };
    mutable SRWLOCK lock_ = SRWLOCK_INIT;  // guards the entries
    std::vector<Entry> entries_;
};

}  // namespace sweep
