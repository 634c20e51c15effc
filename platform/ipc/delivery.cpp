#include "platform/ipc/delivery.h"

#include <system_error>
#include <utility>

namespace Platform::Ipc {

namespace {

constexpr std::chrono::milliseconds kRetryTime{20};

class FunctionTask final : public PoolTask {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void Run() override { function_(); }

 private:
  const std::function<void()> function_;
};

}  // namespace

void Delivery::Post(std::function<void()> task) {
  Post(std::make_shared<FunctionTask>(std::move(task)));
}

void Delivery::Post(std::shared_ptr<PoolTask> task) {
  try {
    pool_.Post(task);
  } catch (const std::system_error&) {
    const std::lock_guard lock(mutex_);
    undelivered_.push_back(std::move(task));
    if (undelivered_.size() == 1) loop_->Post([this] { WaitToRetry(); });
  }
}

void Delivery::WaitToRetry() {
  if (timer_ == nullptr) timer_ = loop_->CreateTimer();
  timer_->Wait(kRetryTime, [this] { Retry(); });
}

void Delivery::Retry() {
  std::vector<std::shared_ptr<PoolTask>> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(undelivered_);
  }
  for (std::shared_ptr<PoolTask>& task : tasks) Post(std::move(task));
}

void Delivery::PrepareStop() {
  loop_->Post([this] { timer_.reset(); });
}

void Delivery::Flush() {
  std::vector<std::shared_ptr<PoolTask>> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(undelivered_);
  }
  for (const std::shared_ptr<PoolTask>& task : tasks) task->Run();
}

}  // namespace Platform::Ipc
