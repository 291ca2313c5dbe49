#include "ledger.h"

#include <algorithm>
#include <utility>

namespace sweep {
namespace {

class Guard {
  public:
    explicit Guard(SRWLOCK& lock) : lock_(lock) { ::AcquireSRWLockExclusive(&lock_); }
    ~Guard() { ::ReleaseSRWLockExclusive(&lock_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    SRWLOCK& lock_;
};

}  // namespace

void Ledger::Acquire(Resource resource, ULONG_PTR value, std::string origin) {
    const Guard guard(lock_);
    entries_.push_back({resource, value, std::move(origin)});
}

void Ledger::Release(Resource resource, ULONG_PTR value) {
    const Guard guard(lock_);
    const auto found = std::ranges::find_if(
        entries_, [&](const Entry& entry) { return entry.resource == resource && entry.value == value; });
    if (found != entries_.end()) entries_.erase(found);
}

std::string Ledger::OriginOf(Resource resource, ULONG_PTR value) const {
    const Guard guard(lock_);
    const auto found = std::ranges::find_if(
        entries_, [&](const Entry& entry) { return entry.resource == resource && entry.value == value; });
    return found != entries_.end() ? found->origin : "";
}

std::vector<std::string> Ledger::Left() const {
    const Guard guard(lock_);
    std::vector<std::string> origins;
    for (const Entry& entry : entries_)
        origins.push_back(entry.origin);
    return origins;
}

}  // namespace sweep
