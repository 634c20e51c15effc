#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "core/common/non_copyable.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/io_loop.h"

namespace Platform::Ipc {

// Brings tasks to a pool, also while the system has no thread for it: they are tried again then,
// and never run on the loop's thread. Threads: any.
class Delivery : public Common::NonCopyable {
 public:
  explicit Delivery(ElasticPool& pool) : pool_(pool) {}

  // Before the first task. Borrowed.
  void SetLoop(IoLoop& loop) { loop_ = &loop; }

  // Throws std::bad_alloc.
  void Post(std::shared_ptr<PoolTask> task);
  void Post(std::function<void()> task);

  // Before the loop stops, and the last step behind it: what is still undelivered runs on the
  // calling thread.
  void PrepareStop();
  void Flush();

 private:
  void WaitToRetry();  // on the loop's thread
  void Retry();

  ElasticPool& pool_;
  IoLoop* loop_ = nullptr;
  std::unique_ptr<IoTimer> timer_;  // the loop's

  std::mutex mutex_;
  std::vector<std::shared_ptr<PoolTask>> undelivered_;  // guarded by `mutex_`
};

}  // namespace Platform::Ipc
