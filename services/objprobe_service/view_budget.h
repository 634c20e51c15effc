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
      : max_views_(limits.max_views), max_bytes_(limits.max_view_bytes) {}

  // One view, until it goes.
  class Share : public Common::NonCopyable {
   public:
    Share(std::shared_ptr<ViewBudget> budget, std::size_t bytes);
    ~Share();

   private:
    const std::shared_ptr<ViewBudget> budget_;
    const std::size_t bytes_;
  };

  // A view that was asked for with `bytes`; null when that is one too many.
  std::shared_ptr<Share> Take(std::size_t bytes);

 private:
  const std::size_t max_views_;
  const std::size_t max_bytes_;
  std::atomic<std::size_t> views_{0};
  std::atomic<std::size_t> bytes_{0};
};

}  // namespace ObjProbeService
