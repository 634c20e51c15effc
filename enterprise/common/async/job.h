#pragma once

#include <cstdint>

#include "core/common/line_tag.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"

namespace Async {

// Who runs: the place that describes a job and its text.
struct JobDescription {
  Common::LineTag tag;
  Common::String text;
};

class DescriptiveEntity : public Common::NonCopyable {
 public:
  virtual ~DescriptiveEntity() = default;
  virtual JobDescription Describe() = 0;
};

// Running work. Held by std::shared_ptr<Job> only. Its end is told to the handler it was started
// with.
class Job : public DescriptiveEntity {
 public:
  // The job's number, unique in the process.
  virtual std::uint64_t GetId() = 0;
  // Asks the job to stop; any thread, any moment, any number of times. Must not throw. The end is
  // still told to the handler, which may happen inside this call.
  virtual void Cancel() = 0;
};

// A job with a number and a description.
class BaseJob : public Job {
 public:
  // "ASYNC: Unidentified job."
  JobDescription Describe() override;
  std::uint64_t GetId() override { return id_; }

 protected:
  BaseJob() noexcept;

 private:
  const std::uint64_t id_;
};

}  // namespace Async
