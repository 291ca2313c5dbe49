#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include "function_trace.h"
#include "modul_assert.h"

namespace interprocess {

/// True asks the thread to end.
using StopFlag = std::shared_ptr<std::atomic<bool>>;

/// Runs `ThreadBody::RequestHandler` on a thread of its own for as long as the object lives. ThreadBody
/// derives from it and provides static functions, as the object itself is not built yet, or no more, when
/// they run:
/// - `HandleThreadStart(...)`, called with the constructor's arguments before the thread is started;
/// - `RequestHandler(StopFlag)`, the thread's body; it must catch everything;
/// - `HandleThreadStop()`, called when the stop flag is set, and again until the thread ends: wakes the
///   thread;
/// - `HandleThreadEnd()`, called when the thread has ended or was never started: releases what
///   HandleThreadStart acquired.
template <typename ThreadBody>
class Executor {
  public:
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

  protected:
    /// @throws what HandleThreadStart throws
    /// @throws std::system_error if the thread cannot be created
    template <typename... Args>
    explicit Executor(Args&&... args) : stopFlag_(std::make_shared<std::atomic<bool>>(true)) {
        const trace::FunctionTrace functionTrace("interprocess::Executor::Executor", kSource);
        ThreadBody::HandleThreadStart(std::forward<Args>(args)...);
        *stopFlag_ = false;
        try {
            thread_ = std::thread([stopFlag = stopFlag_, ended = ended_] {
                ThreadBody::RequestHandler(stopFlag);
                *ended = true;
            });
        } catch (...) {
            ThreadBody::HandleThreadEnd();
            throw;
        }
    }

    /// Asks the thread to end and waits for it.
    ~Executor() {
        const trace::FunctionTrace functionTrace("interprocess::Executor::~Executor", kSource);
        try {
            *stopFlag_ = true;
            ThreadBody::HandleThreadStop();
            ::Sleep(0);
            // What wakes the thread can have woken somebody else, who waits for the same event by its name.
            // Without a lock: what makes one can fail, on the thread's last steps too, where nothing catches
            // it.
            constexpr DWORD kStepMs = 10;
            while (!*ended_) {
                ThreadBody::HandleThreadStop();
                ::Sleep(kStepMs);
            }
            thread_.join();
            ThreadBody::HandleThreadEnd();
        } catch (...) {
            _ModulAssert(L"!\"EXCEPTION in DTOR!\"", L"lib_shared_tools\\inc\\thread_executor", __LINE__);
            // A thread that could not be joined still uses what HandleThreadStart acquired.
            if (thread_.joinable()) thread_.detach();
        }
    }

  private:
    static constexpr char kSource[] = "lib_shared_tools\\inc\\thread_executor";

    StopFlag stopFlag_;
    std::shared_ptr<std::atomic<bool>> ended_ = std::make_shared<std::atomic<bool>>(false);
    std::thread thread_;
};

}  // namespace interprocess
