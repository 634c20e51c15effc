#pragma once

#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/dml_view_common/view_records.h"

namespace Dml::Client {

// Gets the records of a stream of changes, in order.
class Consumer : public Common::NonCopyable {
 public:
  virtual ~Consumer() = default;
  virtual void Consume(const std::vector<ViewManagement::ViewUpdate>& records) = 0;
  // No more will come, for this reason.
  virtual void Fail(const Common::Error& error) = 0;
};

}  // namespace Dml::Client
