#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <thread>

#include "core/common/non_copyable.h"
#include "core/common/unix/mutex.h"
#include "platform/store/report_job.h"

namespace Platform::Store {

// The threads of the reports of one post office, one for each running report. Threads: any.
class ReportThreads : public Common::NonCopyable {
 public:
  ReportThreads() = default;
  // Cancels what still runs and waits for it. When that is the report whose handler destroys this
  // object, its thread is left to itself: it has nothing more to do.
  ~ReportThreads();

  // Throws std::system_error when there can't be a thread; the job was not run then.
  void Start(std::shared_ptr<ReportJob> job);

 private:
  // Joins its thread when it goes.
  struct Worker : public Common::NonCopyable {
    ~Worker() {
      if (thread.joinable()) thread.join();
    }

    std::thread thread;
    std::shared_ptr<ReportJob> job;
    std::shared_ptr<std::atomic<bool>> finished;
  };

  void RemoveFinished(std::list<Worker>& removed);

  Common::Mutex mutex_;
  std::list<Worker> workers_;  // guarded by mutex_
};

}  // namespace Platform::Store
