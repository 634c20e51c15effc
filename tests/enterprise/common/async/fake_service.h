#pragma once

#include <atomic>
#include <functional>
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
// whose ticks and beats the test makes. Joins its threads at its end; waits for ticks must be over
// by then.
class FakeService final : public Service,
                          private MetronomeSource,
                          private Metronome,
                          private Beats {
 public:
  FakeService() {
    instance = this;
    SetServiceProvider([](Service** service) { *service = instance; });
  }
  ~FakeService() {
    Join();
    SetServiceProvider(nullptr);
    EXPECT_TRUE(waiting_.empty());
    EXPECT_TRUE(watching_.empty());
  }

  std::shared_ptr<Job> PerformWork(Work& work, ActionHandler& handler) override {
    ++works;
    if (refuse_work_) refuse_work_();
    if (keep_work_) {
      kept_work.push_back(&handler);
      return nullptr;
    }
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

  void RefuseWork(std::function<void()> raise = [] { throw Failure(); }) {
    refuse_work_ = std::move(raise);
  }
  // Leaves it to the test to tell the handlers.
  void KeepWork() { keep_work_ = true; }
  // What no real service does: work has ended when PerformWork returns.
  void RunWorkInside() { run_work_inside_ = true; }
  // Returns when all work has ended, also work that was performed by work.
  void Join() {
    for (;;) {
      std::unique_lock lock(mutex_);
      std::vector<std::thread> threads = std::exchange(threads_, {});
      lock.unlock();
      if (threads.empty()) return;
      for (std::thread& thread : threads) thread.join();
    }
  }
  // Ticks on a thread of its own and returns when all waiting handlers were told.
  void Tick() {
    std::thread([this] { TickHere(); }).join();
  }
  void TickHere() {
    std::unique_lock lock(mutex_);
    const std::vector<ActionHandler*> told = std::exchange(waiting_, {});
    lock.unlock();
    for (ActionHandler* const handler : told) handler->Completed({});
  }
  void ShowBeats() { shows_beats_ = true; }
  // Returns when those whose tick it was were told.
  void Beat() {
    std::unique_lock lock(mutex_);
    std::vector<ActionHandler*> told;
    std::erase_if(watching_, [&told](const auto& watch) {
      const bool ticks = watch.first->OnBeat();
      if (ticks) told.push_back(watch.second);
      return ticks;
    });
    lock.unlock();
    for (ActionHandler* const handler : told) handler->Completed({});
  }
  void LoseWatches() {
    std::unique_lock lock(mutex_);
    const auto lost = std::exchange(watching_, {});
    lock.unlock();
    for (const auto& [watcher, handler] : lost) handler->Completed(canceled_error.Get());
  }
  int waits = 0;
  std::atomic<int> works = 0;  // the times that work was given, refused or not
  std::vector<ActionHandler*> kept_work;
  std::atomic<unsigned int> interval = 0;

 private:
  Metronome* GetMetronome(unsigned int asked) override {
    interval = asked;
    return this;
  }
  std::shared_ptr<Job> WaitTick(ActionHandler& handler) override {
    const std::lock_guard lock(mutex_);
    ++waits;
    waiting_.push_back(&handler);
    return std::make_shared<FakeJob>([this, &handler] {
      std::unique_lock taking(mutex_);
      if (std::erase(waiting_, &handler) == 0) return;
      taking.unlock();
      handler.Completed(canceled_error.Get());
    });
  }

  Beats* GetBeats() override { return shows_beats_ ? this : nullptr; }
  std::shared_ptr<Job> Watch(BeatWatcher& watcher, ActionHandler& handler) override {
    const std::lock_guard lock(mutex_);
    ++waits;
    watching_.emplace_back(&watcher, &handler);
    return std::make_shared<FakeJob>([this, &handler] {
      std::unique_lock taking(mutex_);
      const auto is_its = [&handler](const auto& watch) { return watch.second == &handler; };
      if (std::erase_if(watching_, is_its) == 0) return;
      taking.unlock();
      handler.Completed(canceled_error.Get());
    });
  }

  static inline FakeService* instance = nullptr;

  TlsSynchronizationCallbackStorage storage_;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
  std::vector<ActionHandler*> waiting_;
  std::vector<std::pair<BeatWatcher*, ActionHandler*>> watching_;
  bool shows_beats_ = false;
  std::function<void()> refuse_work_;
  bool keep_work_ = false;
  bool run_work_inside_ = false;
};

}  // namespace Async::Testing
