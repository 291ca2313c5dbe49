#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
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
            thread_ = std::thread([stopFlag = stopFlag_, end = end_] {
                ThreadBody::RequestHandler(stopFlag);
                end->Reach();
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
            while (!end_->WaitFor(std::chrono::milliseconds(100)))
                ThreadBody::HandleThreadStop();
            thread_.join();
            ThreadBody::HandleThreadEnd();
        } catch (...) {
            _ModulAssert(L"!\"EXCEPTION in DTOR!\"", L"lib_shared_tools\\inc\\thread_executor", __LINE__);
            // A thread that could not be joined still uses what HandleThreadStart acquired.
            if (thread_.joinable()) thread_.detach();
        }
    }

  private:
    /// The end of the thread's body.
    class ThreadEnd {
      public:
        void Reach() {
            const std::lock_guard guard(lock_);
            reached_ = true;
            changed_.notify_all();
        }
        bool WaitFor(std::chrono::milliseconds time) {
            std::unique_lock guard(lock_);
            return changed_.wait_for(guard, time, [this] { return reached_; });
        }

      private:
        std::mutex lock_;
        std::condition_variable changed_;
        bool reached_ = false;
    };

    static constexpr char kSource[] = "lib_shared_tools\\inc\\thread_executor";

    StopFlag stopFlag_;
    std::shared_ptr<ThreadEnd> end_ = std::make_shared<ThreadEnd>();
    std::thread thread_;
};

}  // namespace interprocess
