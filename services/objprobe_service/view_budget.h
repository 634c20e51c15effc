#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "core/common/non_copyable.h"
#include "services/objprobe_service/service_limits.h"

namespace ObjProbeService {

// How many views and channels a connection has, and what they cost. Threads: any.
class ViewBudget : public std::enable_shared_from_this<ViewBudget>, public Common::NonCopyable {
 public:
  explicit ViewBudget(const ServiceLimits& limits)
      : max_views_(limits.max_views),
        max_bytes_(limits.max_view_bytes),
        max_objects_(limits.max_view_objects) {}

  // One view, until it goes. Of one with a limit on its objects the store remembers each object, so
  // they are counted, too.
  class Share : public Common::NonCopyable {
   public:
    Share(std::shared_ptr<ViewBudget> budget, std::size_t bytes, bool counts_objects);
    ~Share();

    // An object has come into the view. False if that is one too many; then it stays false, as the
    // view has to end. Objects are added and removed by one thread at a time.
    bool AddObject();
    void RemoveObject();
    bool IsExceeded() const { return is_exceeded_; }

   private:
    const std::shared_ptr<ViewBudget> budget_;
    const std::size_t bytes_;
    const bool counts_objects_;
    std::size_t objects_ = 0;
    std::atomic<bool> is_exceeded_{false};
  };

  // A view that was asked for with `bytes`; null when that is one too many.
  std::shared_ptr<Share> Take(std::size_t bytes, bool counts_objects);

 private:
  const std::size_t max_views_;
  const std::size_t max_bytes_;
  const std::size_t max_objects_;
  std::atomic<std::size_t> views_{0};
  std::atomic<std::size_t> bytes_{0};
  std::atomic<std::size_t> objects_{0};
};

}  // namespace ObjProbeService
