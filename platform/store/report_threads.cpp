#include "platform/store/report_threads.h"

#include <utility>

namespace Platform::Store {

ReportThreads::~ReportThreads() {
  std::list<Worker> workers;
  {
    Common::MutexLock lock(mutex_);
    workers.swap(workers_);
  }
  for (Worker& worker : workers) worker.job->Cancel();
  for (Worker& worker : workers) {
    if (worker.thread.get_id() == std::this_thread::get_id()) worker.thread.detach();
  }
}

void ReportThreads::Start(std::shared_ptr<ReportJob> job) {
  std::list<Worker> finished;  // joined outside the lock
  Common::MutexLock lock(mutex_);
  RemoveFinished(finished);
  std::list<Worker> added(1);
  Worker& worker = added.front();
  worker.job = job;
  worker.finished = std::make_shared<std::atomic<bool>>(false);
  // The thread owns all that it uses: nobody is left to ask once the handler has been told.
  worker.thread = std::thread([job = std::move(job), flag = worker.finished]() mutable {
    job->Run();
    job.reset();
    flag->store(true, std::memory_order_release);
  });
  workers_.splice(workers_.end(), added);
}

void ReportThreads::RemoveFinished(std::list<Worker>& removed) {
  for (auto it = workers_.begin(); it != workers_.end();) {
    const auto next = std::next(it);
    if (it->finished->load(std::memory_order_acquire)) removed.splice(removed.end(), workers_, it);
    it = next;
  }
}

}  // namespace Platform::Store
