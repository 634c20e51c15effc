#include <atomic>

#include "core/common/message_table.h"
#include "enterprise/common/async/job.h"

namespace Async {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/async/base_job"};

// Constant-initialised: static initialisers may make jobs.
constinit std::atomic<std::uint64_t> last_id{0};

}  // namespace

BaseJob::BaseJob() noexcept : id_(last_id.fetch_add(1, std::memory_order_relaxed) + 1) {}

JobDescription BaseJob::Describe() {
  return {kSource.At("Describe", 10),
          Common::GetMessageText(Common::MessageRow::AsyncUnidentifiedJob)};
}

}  // namespace Async
