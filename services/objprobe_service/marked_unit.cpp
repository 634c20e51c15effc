#include "services/objprobe_service/marked_unit.h"

namespace ObjProbeService {

namespace {

bool IsReserved(const Por::Name& name) {
  return name == Por::Name(kChannelId) || name == Por::Name(kChannelCreation) ||
         name == Por::Name(kChannelRemoval) || name == Por::Name(kChannelError);
}

}  // namespace

void MarkedTraits::ForEach(Por::ItemProcessor<const Por::View::Trait>& processor) const {
  bool is_marked = false;
  bool is_stopped = false;
  auto merge = Por::MakeProcessor<const Por::View::Trait>([&](const Por::View::Trait& trait) {
    if (IsReserved(trait.GetName())) return false;
    if (!is_marked && mark_->GetName() < trait.GetName()) {
      is_marked = true;
      is_stopped = processor.Process(*mark_);
    }
    if (!is_stopped) is_stopped = processor.Process(trait);
    return is_stopped;
  });
  inner_->ForEach(merge);
  if (!is_marked && !is_stopped) processor.Process(*mark_);
}

void MarkedTraits::ForEach(const Por::Name& name,
                           Por::ItemProcessor<const Por::View::Trait>& processor) const {
  if (name == mark_->GetName()) {
    processor.Process(*mark_);
  } else if (!IsReserved(name)) {
    inner_->ForEach(name, processor);
  }
}

}  // namespace ObjProbeService
