#pragma once

#include <exception>

#include "core/common/error.h"
#include "core/common/message_table.h"
#include "core/common/non_copyable.h"

namespace Async {

// Turns an exception that came out of an operation into an error.
class OperationDescription : public Common::NonCopyable {
 public:
  virtual ~OperationDescription() = default;
  virtual Common::Error DescribeException(const Common::Error& exception) = 0;
  virtual Common::Error DescribeStdException(const std::exception& exception) = 0;
  virtual Common::Error DescribeUnknownException() = 0;
};

// Names the operation in the message; a described Common::Error becomes the reason of the new one.
// Codes: kExceptionCode, kStdExceptionCode, kUnknownExceptionCode. When memory is out: the
// out-of-memory error, with the given error as its reason if one can be attached.
class NamedOperationDescription : public OperationDescription {
 public:
  // The row with the operation word.
  explicit NamedOperationDescription(Common::MessageRow operation)
      : NamedOperationDescription(Common::GetMessageText(operation)) {}
  // The word itself, borrowed.
  explicit NamedOperationDescription(const char16_t* operation) : operation_(operation) {}

  Common::Error DescribeException(const Common::Error& exception) override;
  Common::Error DescribeStdException(const std::exception& exception) override;
  Common::Error DescribeUnknownException() override;

 private:
  const char16_t* const operation_;
};

// Guards a description, which is borrowed: one that throws Common::Error itself is replaced by the
// given error, or by the out-of-memory error where there is none.
class SafeOperationDescription : public OperationDescription {
 public:
  explicit SafeOperationDescription(OperationDescription& description)
      : description_(description) {}

  Common::Error DescribeException(const Common::Error& exception) override;
  Common::Error DescribeStdException(const std::exception& exception) override;
  Common::Error DescribeUnknownException() override;

 private:
  OperationDescription& description_;
};

// For a catch block: the exception that is being handled. A Common::Error comes as it is, for
// std::bad_alloc the out-of-memory error, all others are described.
Common::Error DescribeCaughtException(OperationDescription& operation) noexcept;

}  // namespace Async
