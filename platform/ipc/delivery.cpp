#include "platform/ipc/delivery.h"

#include <exception>
#include <new>
#include <utility>

namespace Platform::Ipc {

namespace {

constexpr std::chrono::milliseconds kRetryTime{20};

class FunctionTask final : public DeliveryTask {
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

Delivery::~Delivery() {
  // One after the other: together they would go by a recursion.
  for (std::shared_ptr<DeliveryTask> task = TakeAll(); task != nullptr;) {
    task = std::exchange(task->next_, nullptr);
  }
}

void Delivery::Post(std::shared_ptr<DeliveryTask> task) noexcept {
  try {
    pool_.Post(task);
  } catch (const std::exception&) {
    const std::lock_guard lock(mutex_);
    task->next_ = std::move(undelivered_);
    undelivered_ = std::move(task);
  }
  // Also when this one has got through: one before it may not even have found memory to be tried
  // again.
  EnsureRetry();
}

void Delivery::EnsureRetry() noexcept {
  const std::lock_guard lock(mutex_);
  if (undelivered_ == nullptr || will_retry_) return;
  try {
    will_retry_ = loop_->Post([this] { WaitToRetry(); });
  } catch (const std::bad_alloc&) {
    // The next one to ask for it has more luck.
  }
}

void Delivery::WaitToRetry() {
  if (is_stopping_) return;
  try {
    if (timer_ == nullptr) timer_ = loop_->CreateTimer();
    timer_->Wait(kRetryTime, [this] { Retry(); });
  } catch (const std::exception&) {
    const std::lock_guard lock(mutex_);
    will_retry_ = false;
  }
}

std::shared_ptr<DeliveryTask> Delivery::TakeAll() {
  const std::lock_guard lock(mutex_);
  will_retry_ = false;
  return std::move(undelivered_);
}

void Delivery::Retry() {
  // In the order in which they came.
  std::shared_ptr<DeliveryTask> ordered;
  for (std::shared_ptr<DeliveryTask> task = TakeAll(); task != nullptr;) {
    std::shared_ptr<DeliveryTask> next = std::move(task->next_);
    task->next_ = std::move(ordered);
    ordered = std::move(task);
    task = std::move(next);
  }
  while (ordered != nullptr) {
    std::shared_ptr<DeliveryTask> next = std::move(ordered->next_);
    Post(std::move(ordered));
    ordered = std::move(next);
  }
}

void Delivery::PrepareStop() noexcept {
  loop_->PostAtLast([this] {
    is_stopping_ = true;
    timer_.reset();
  });
}

void Delivery::Flush() {
  for (std::shared_ptr<DeliveryTask> task = TakeAll(); task != nullptr;) {
    std::shared_ptr<DeliveryTask> next = std::move(task->next_);
    task->Run();
    task = std::move(next);
  }
}

}  // namespace Platform::Ipc
