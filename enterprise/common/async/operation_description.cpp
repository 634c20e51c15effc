#include "enterprise/common/async/operation_description.h"

#include <new>
#include <vector>

#include "core/common/text.h"
#include "enterprise/common/async/async_error.h"

namespace Async {
namespace {

constexpr Common::SourceFile kSource{"enterprise/common/async/operation_description"};

// Throws std::bad_alloc.
Common::Error MakeError(std::uint32_t code, Common::MessageRow row,
                        const std::vector<Common::String>& arguments, const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(row), arguments);
  return Common::MakeTracedError(code, text.c_str(), tag);
}

}  // namespace

Common::Error NamedOperationDescription::DescribeException(const Common::Error& exception) {
  Common::Error described;
  try {
    described = MakeError(kExceptionCode, Common::MessageRow::AsyncException, {operation_},
                          kSource.At("DescribeException", 10));
  } catch (const std::bad_alloc&) {
    described = Common::Error::OutOfMemory();
  }
  described.SetReason(exception);
  return described;
}

Common::Error NamedOperationDescription::DescribeStdException(const std::exception& exception) {
  try {
    return MakeError(kStdExceptionCode, Common::MessageRow::AsyncStdException,
                     {operation_, Common::Utf8ToString(exception.what())},
                     kSource.At("DescribeStdException", 20));
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  }
}

Common::Error NamedOperationDescription::DescribeUnknownException() {
  try {
    return MakeError(kUnknownExceptionCode, Common::MessageRow::AsyncUnknownException, {operation_},
                     kSource.At("DescribeUnknownException", 30));
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  }
}

Common::Error SafeOperationDescription::DescribeException(const Common::Error& exception) {
  try {
    return description_.DescribeException(exception);
  } catch (const Common::Error&) {
    return exception;
  }
}

Common::Error SafeOperationDescription::DescribeStdException(const std::exception& exception) {
  try {
    return description_.DescribeStdException(exception);
  } catch (const Common::Error&) {
    return Common::Error::OutOfMemory();
  }
}

Common::Error SafeOperationDescription::DescribeUnknownException() {
  try {
    return description_.DescribeUnknownException();
  } catch (const Common::Error&) {
    return Common::Error::OutOfMemory();
  }
}

Common::Error DescribeCaughtException(OperationDescription& operation) noexcept {
  SafeOperationDescription description(operation);
  try {
    throw;
  } catch (const Common::Error& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  } catch (const std::exception& exception) {
    return description.DescribeStdException(exception);
  } catch (...) {
    return description.DescribeUnknownException();
  }
}

}  // namespace Async
