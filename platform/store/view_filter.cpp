#include "platform/store/view_filter.h"

#include <new>
#include <utility>

#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/por/matches.h"
#include "enterprise/common/por/unit_factory.h"
#include "platform/store/decode_object.h"
#include "platform/store/object_diff.h"

namespace Platform::Store {

namespace ViewManagement = Dml::ViewManagement;

DecodedChange::DecodedChange(const StoredChange& change,
                             const Por::Construction::UnitFactory& factory)
    : object_(change.object), id_(change.id), factory_(factory) {
  if (change.has_before) before_ = DecodeObject(change.before, change.before_size, factory);
  if (change.has_after) after_ = DecodeObject(change.after, change.after_size, factory);
}

Por::SharedUnit DecodedChange::GetKey() const {
  const Por::SharedUnit& object = after_ != nullptr ? after_ : before_;
  if (object != nullptr) {
    try {
      return {object, &Dml::FindObjectKey(*object)};
    } catch (const Common::Error&) {
      // Not from a writer of ours; it still has its identification.
    }
  }
  return factory_.CreateGuid(id_);
}

const Por::SharedUnit& DecodedChange::GetDiff() {
  if (diff_ == nullptr) {
    diff_ = before_ != nullptr ? MakeObjectDiff(*before_, *after_, factory_) : after_;
  }
  return diff_;
}

ViewFilter::ViewFilter(Por::SharedUnit pattern, std::optional<unsigned int> limit)
    : pattern_(std::move(pattern)), limit_(limit) {}

void ViewFilter::AddMember(long long object) {
  if (limit_) members_.insert(object);
}

bool ViewFilter::IsMatch(const Por::SharedUnit& object) const {
  return object != nullptr && (pattern_ == nullptr || Por::Util::Matches(*object, *pattern_));
}

void ViewFilter::Apply(DecodedChange& change, std::vector<ViewManagement::ViewUpdate>& updates) {
  const bool was_in =
      limit_ ? members_.count(change.GetObject()) != 0 : IsMatch(change.GetBefore());
  const bool is_match = IsMatch(change.GetAfter());
  if (was_in && is_match) {
    updates.push_back({ViewManagement::kUpdateUpdated, change.GetKey(), change.GetDiff()});
  } else if (was_in) {
    updates.push_back({ViewManagement::kUpdateDeleted, change.GetKey(), nullptr});
    members_.erase(change.GetObject());
  } else if (is_match && (!limit_ || members_.size() < *limit_)) {
    updates.push_back({ViewManagement::kUpdateCreated, change.GetAfter(), nullptr});
    try {
      AddMember(change.GetObject());
    } catch (const std::bad_alloc&) {
      updates.pop_back();
      throw;
    }
  }
}

}  // namespace Platform::Store
