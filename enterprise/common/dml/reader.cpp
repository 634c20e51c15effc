#include "enterprise/common/dml/reader.h"

#include "enterprise/common/por/unit_handle.h"

namespace Dml {

namespace {

// The unit at the place, kept alive. Throws the error of the place when there is nothing.
Por::SharedUnit GetShared(const Por::ConstUnit& place) {
  Por::SharedUnit unit = place.GetShared();
  if (unit == nullptr) place.GetUnit();
  return unit;
}

}  // namespace

void ReportReader::Read(const Por::ConstUnit& object) {
  const Por::SharedUnit unit = GetShared(object);
  Read(*unit);
}

void SubscriptionReader::OnCreated(const Por::ConstUnit& object) {
  const Por::SharedUnit unit = GetShared(object);
  OnCreated(*unit);
}

void SubscriptionReader::OnUpdated(const Por::ConstUnit& key, const Por::ConstUnit& diff) {
  const Por::SharedUnit key_unit = GetShared(key);
  const Por::SharedUnit diff_unit = GetShared(diff);
  OnUpdated(*key_unit, *diff_unit);
}

void SubscriptionReader::OnDeleted(const Por::ConstUnit& key) {
  const Por::SharedUnit unit = GetShared(key);
  OnDeleted(*unit);
}

}  // namespace Dml
