#pragma once

#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml_view_common/view_records.h"
#include "enterprise/common/por/fwd.h"
#include "platform/store/object_store.h"

namespace Platform::Store {

// A change with its objects decoded, shared by all views that look at it. The factory must outlive
// it; the units that it hands out outlive both.
class DecodedChange : public Common::NonCopyable {
 public:
  DecodedChange(const StoredChange& change, const Por::Construction::UnitFactory& factory);

  long long GetObject() const { return object_; }
  // Null for an object that wasn't there, or can't be decoded.
  const Por::SharedUnit& GetBefore() const { return before_; }
  const Por::SharedUnit& GetAfter() const { return after_; }
  // The key of the object, inside the unit that it was found in. Without one, the identification
  // under which the object is stored.
  Por::SharedUnit GetKey() const;
  // What the update changed, made on the first call. There must be an object behind the change;
  // without one before it, that is the difference.
  const Por::SharedUnit& GetDiff();

 private:
  const long long object_;
  const Common::Guid id_;
  const Por::Construction::UnitFactory& factory_;
  Por::SharedUnit before_;
  Por::SharedUnit after_;
  Por::SharedUnit diff_;
};

// What the changes of a store are to one view.
//
// An object that begins to match the pattern, or is new, is created; one that goes on matching is
// updated; one that stops matching, or is gone, is deleted; one that doesn't match on either side
// is none of the view's. An object that can't be decoded counts as not there.
//
// A limit bounds the objects of the view at any time: it holds those of its start, and takes one
// more whenever a matching object changes and there is room. What found no room isn't in the view,
// so that nothing is told of it.
//
// One thread at a time.
class ViewFilter {
 public:
  // A null pattern matches everything.
  ViewFilter(Por::SharedUnit pattern, std::optional<unsigned int> limit);

  // An object that was in the view from its start. For views with a limit, the only ones that
  // remember their objects.
  void AddMember(long long object);
  // Appends what the change is to the view, if anything. Throws what the matching throws; nothing
  // has happened then.
  void Apply(DecodedChange& change, std::vector<Dml::ViewManagement::ViewUpdate>& updates);

 private:
  bool IsMatch(const Por::SharedUnit& object) const;

  const Por::SharedUnit pattern_;
  const std::optional<unsigned int> limit_;
  std::set<long long> members_;  // only with a limit, which bounds it
};

}  // namespace Platform::Store
