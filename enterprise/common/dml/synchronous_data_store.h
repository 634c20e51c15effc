#pragma once

#include "core/common/entry_point.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/reader.h"
#include "enterprise/common/por/unit_factory.h"

namespace Dml {

// A blocking front of a post office. Threads: blocks the calling one; the reader is called on any.
class SynchronousDataStore {
 public:
  // Both are borrowed. `office` may be null.
  SynchronousDataStore(PostOffice* office, Por::Construction::UnitFactory* factory);

  // Reads all objects of the view; returns when the report is complete. Throws Common::Error: what
  // the report ended with, as it came, or kMissingPartCode without a post office.
  void Report(const Core::EntryPoint& entry_point, const ViewSpec& spec, ReportReader& reader);

 private:
  PostOffice& GetPostOffice() const;

  PostOffice* const office_;
  [[maybe_unused]] Por::Construction::UnitFactory* const factory_;
};

}  // namespace Dml
