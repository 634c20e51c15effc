#include "services/objprobe_service/view_budget.h"

#include <utility>

namespace ObjProbeService {

ViewBudget::Share::Share(std::shared_ptr<ViewBudget> budget, std::size_t bytes)
    : budget_(std::move(budget)), bytes_(bytes) {
  ++budget_->views_;
  budget_->bytes_ += bytes_;
}

ViewBudget::Share::~Share() {
  --budget_->views_;
  budget_->bytes_ -= bytes_;
}

std::shared_ptr<ViewBudget::Share> ViewBudget::Take(std::size_t bytes) {
  auto share = std::make_shared<Share>(shared_from_this(), bytes);
  if (views_ > max_views_ || bytes_ > max_bytes_) return nullptr;
  return share;
}

}  // namespace ObjProbeService
