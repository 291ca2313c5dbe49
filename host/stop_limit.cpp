#include "stop_limit.h"

#include <utility>

namespace host {
namespace {

constexpr DWORD kSecond = 1000;

}  // namespace

StopLimit::StopLimit(std::chrono::seconds limit, Callback report, Callback giveUp)
    : limit_(limit), report_(std::move(report)), giveUp_(std::move(giveUp)), thread_([this] { Watch(); }) {}

StopLimit::~StopLimit() {
    End();
    thread_.join();
}

void StopLimit::Begin() {
    ::SetEvent(begun_.get());
}

void StopLimit::End() {
    const std::lock_guard guard(lock_);
    ::SetEvent(ended_.get());
}

void StopLimit::Watch() {
    const HANDLE either[] = {ended_.get(), begun_.get()};
    if (::WaitForMultipleObjects(ARRAYSIZE(either), either, FALSE, INFINITE) == WAIT_OBJECT_0) return;
    for (std::chrono::seconds passed(1);; ++passed) {
        ::WaitForSingleObject(ended_.get(), kSecond);
        const std::lock_guard guard(lock_);
        if (::WaitForSingleObject(ended_.get(), 0) == WAIT_OBJECT_0) return;
        if (passed >= limit_) return giveUp_();
        report_();
    }
}

}  // namespace host
