#include "platform/store/guarded_call.h"

#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/text.h"
#include "core/common/trace.h"
#include "enterprise/common/async/async_error.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/guarded_call"};

// `what` is null when nothing is known of the exception.
Common::Error DescribeForeignException(const char16_t* operation, const char* what) noexcept {
  try {
    std::vector<Common::String> words{operation};
    if (what != nullptr) words.push_back(Common::Utf8ToString(what));
    Common::String text;
    Common::FormatMessage(
        text,
        Common::GetMessageText(what != nullptr ? Common::MessageRow::AsyncStdException
                                               : Common::MessageRow::AsyncUnknownException),
        words);
    return Common::MakeTracedError(
        what != nullptr ? Async::kStdExceptionCode : Async::kUnknownExceptionCode, text.c_str(),
        kSource.At("DescribeForeignException", 10));
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  }
}

}  // namespace

Common::Error DescribeException(const char16_t* operation) noexcept {
  try {
    throw;
  } catch (const Common::Error& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  } catch (const std::exception& failure) {
    return DescribeForeignException(operation, failure.what());
  } catch (...) {
    return DescribeForeignException(operation, nullptr);
  }
}

void TellEnd(Async::ActionHandler& handler, Common::Error result) {
  try {
    handler.Completed(std::move(result));
  } catch (const Common::Error& error) {
    try {
      Common::Trace(Common::kTraceError, error);
    } catch (const std::bad_alloc&) {
      // Nobody is left to be told.
    }
  }
}

}  // namespace Platform::Store
