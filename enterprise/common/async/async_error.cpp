#include "enterprise/common/async/async_error.h"

#include "core/common/error_record.h"

namespace Async {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/async/error"};

}  // namespace

constinit StaticError invalid_result_error{kInvalidResultCode,
                                           Common::MessageRow::AsyncInvalidResult};
constinit StaticError canceled_error{kCanceledCode, Common::MessageRow::AsyncCanceled};
constinit StaticError unspecified_error{kUnspecifiedCode};
constinit StaticError unimportant_error{kUnimportantCode};
constinit StaticError stop_sequence_error{kStopSequenceCode};
constinit StaticError stop_repeating_error{kStopRepeatingCode};

void StaticError::ResolveMessage() noexcept {
  if (!row_ || message_.load(std::memory_order_relaxed) != nullptr) return;
  message_.store(Common::GetMessageText(*row_), std::memory_order_relaxed);
}

Common::Error StaticError::Get() noexcept {
  Common::ErrorRecord* published = record_.load(std::memory_order_acquire);
  if (published == nullptr) {
    ResolveMessage();  // a static initialiser may come here before the one below
    Common::Error made = Common::MakeTracedError(code_, message_.load(std::memory_order_relaxed),
                                                 kSource.At("Get", 10));
    // The record is still this thread's own.
    auto* const record = const_cast<Common::ErrorRecord*>(made.GetRecord());
    if (record == Common::OutOfMemoryRecord()) return made;
    Common::AddReference(record);
    if (record_.compare_exchange_strong(published, record, std::memory_order_acq_rel)) return made;
    Common::ReleaseChain(record);  // another thread was first; `made` frees it
  }
  return Common::Error::Adopt(Common::AddReference(published));
}

namespace {

[[maybe_unused]] const bool messages_resolved = [] {
  invalid_result_error.ResolveMessage();
  canceled_error.ResolveMessage();
  return true;
}();

}  // namespace
}  // namespace Async
