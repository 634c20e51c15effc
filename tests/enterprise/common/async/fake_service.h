#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/service.h"
#include "tests/enterprise/common/async/test_support.h"

namespace Async::Testing {

// The process's async service while it lives: a thread for each piece of work, and a metronome
// whose ticks the test makes. Joins its threads at its end; waits for ticks must be over by then.
class FakeService final : public Service, private MetronomeSource, private Metronome {
 public:
  FakeService() {
    instance = this;
    SetServiceProvider([](Service** service) { *service = instance; });
  }
  ~FakeService() {
    Join();
    SetServiceProvider(nullptr);
    EXPECT_TRUE(waiting_.empty());
  }

  std::shared_ptr<Job> PerformWork(Work& work, ActionHandler& handler) override {
    if (refuse_work_) throw Failure();
    if (run_work_inside_) {
      handler.Completed(work.Execute());
      return nullptr;
    }
    const std::lock_guard lock(mutex_);
    threads_.emplace_back([&work, &handler] { handler.Completed(work.Execute()); });
    return std::make_shared<FakeJob>();
  }
  SynchronizationCallbackStorage* GetSynchronizationCallbackStorage() override { return &storage_; }
  MetronomeSource* GetMetronomeSource() override { return this; }

  void RefuseWork() { refuse_work_ = true; }
  // What no real service does: work has ended when PerformWork returns.
  void RunWorkInside() { run_work_inside_ = true; }
  // Returns when all work has ended, also work that was performed by work.
  void Join() {
    for (;;) {
      std::vector<std::thread> threads;
      {
        const std::lock_guard lock(mutex_);
        threads.swap(threads_);
      }
      if (threads.empty()) return;
      for (std::thread& thread : threads) thread.join();
    }
  }
  // Ticks on a thread of its own and returns when all waiting handlers were told.
  void Tick() {
    std::thread([this] { TickHere(); }).join();
  }
  void TickHere() {
    for (const std::shared_ptr<Wait>& wait : TakeAll()) wait->Tell({});
  }
  int waits = 0;
  unsigned int interval = 0;

 private:
  class Wait : public BaseJob {
   public:
    Wait(FakeService& service, ActionHandler& handler) : service_(service), handler_(&handler) {}
    void Cancel() override {
      if (service_.Take(*this)) Tell(canceled_error.Get());
    }
    void Tell(Common::Error result) { handler_->Completed(std::move(result)); }

   private:
    FakeService& service_;
    ActionHandler* const handler_;
  };

  Metronome* GetMetronome(unsigned int asked) override {
    interval = asked;
    return this;
  }
  std::shared_ptr<Job> WaitTick(ActionHandler& handler) override {
    auto wait = std::make_shared<Wait>(*this, handler);
    const std::lock_guard lock(mutex_);
    ++waits;
    waiting_.push_back(wait);
    return wait;
  }
  std::vector<std::shared_ptr<Wait>> TakeAll() {
    const std::lock_guard lock(mutex_);
    return std::exchange(waiting_, {});
  }
  bool Take(const Wait& wait) {
    const std::lock_guard lock(mutex_);
    for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
      if (it->get() != &wait) continue;
      waiting_.erase(it);
      return true;
    }
    return false;
  }

  static inline FakeService* instance = nullptr;

  TlsSynchronizationCallbackStorage storage_;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
  std::vector<std::shared_ptr<Wait>> waiting_;
  bool refuse_work_ = false;
  bool run_work_inside_ = false;
};

}  // namespace Async::Testing
