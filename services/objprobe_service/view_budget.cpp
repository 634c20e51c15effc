#include "services/objprobe_service/view_budget.h"

#include <utility>

namespace ObjProbeService {

ViewBudget::Share::Share(std::shared_ptr<ViewBudget> budget, std::size_t bytes, bool counts_objects)
    : budget_(std::move(budget)), bytes_(bytes), counts_objects_(counts_objects) {
  ++budget_->views_;
  budget_->bytes_ += bytes_;
}

ViewBudget::Share::~Share() {
  --budget_->views_;
  budget_->bytes_ -= bytes_;
  budget_->objects_ -= objects_;
}

bool ViewBudget::Share::AddObject() {
  if (!counts_objects_) return true;
  ++objects_;
  if (++budget_->objects_ > budget_->max_objects_) is_exceeded_ = true;
  return !is_exceeded_;
}

void ViewBudget::Share::RemoveObject() {
  if (!counts_objects_ || objects_ == 0) return;
  --objects_;
  --budget_->objects_;
}

std::shared_ptr<ViewBudget::Share> ViewBudget::Take(std::size_t bytes, bool counts_objects) {
  auto share = std::make_shared<Share>(shared_from_this(), bytes, counts_objects);
  if (views_ > max_views_ || bytes_ > max_bytes_) return nullptr;
  return share;
}

}  // namespace ObjProbeService
