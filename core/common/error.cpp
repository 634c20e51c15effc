#include "core/common/error.h"

#include <utility>

#include "core/common/error_record.h"
#include "core/common/error_record_internal.h"
#include "core/common/error_render.h"

namespace Common {

namespace {

constexpr SourceFile kSource{"core/common/error"};

}  // namespace

Error::Error(std::uint32_t code, const LineTag& tag) noexcept
    : record_(Internal::NewPlainRecord(code, tag)) {}

Error::Error(std::uint32_t code, const char* text, const LineTag& tag) noexcept
    : record_(Internal::NewNarrowRecord(code, text, tag)) {}

Error::Error(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept
    : record_(Internal::NewWideRecord(code, text, tag)) {}

Error::Error(const Error& other) noexcept : record_(AddReference(other.record_)) {}

Error& Error::operator=(const Error& other) noexcept {
  ErrorRecord* record = AddReference(other.record_);
  ReleaseChain(std::exchange(record_, record));
  return *this;
}

Error& Error::operator=(Error&& other) noexcept {
  ErrorRecord* record = std::exchange(other.record_, nullptr);
  ReleaseChain(std::exchange(record_, record));
  return *this;
}

void Error::DummyVirtualMethod() {}

Error::~Error() {
  ReleaseChain(record_);
}

std::uint32_t Error::GetCode() const noexcept {
  return record_ != nullptr ? record_->code : 0;
}

String Error::GetMessage() const {
  String message;
  if (record_ != nullptr) record_->operations->GetMessage(message, record_);
  return message;
}

LineTag Error::GetLineTag() const noexcept {
  if (record_ == nullptr) return {};
  return {record_->location, record_->file, record_->function, record_->line};
}

bool Error::HoldsCode(std::uint32_t code) const noexcept {
  for (const ErrorRecord* record = record_; record != nullptr; record = record->next) {
    if (record->code == code) return true;
  }
  return false;
}

void Error::SetReason(const Error& reason) noexcept {
  // Taken first: a chain that holds this error's head makes the head a shared one, so that no chain
  // can close on itself.
  ErrorRecord* next = AddReference(reason.record_);
  if (record_ == nullptr) {
    record_ = next;
  } else if (IsOnlyReference(record_)) {
    ReleaseChain(std::exchange(record_->next, next));
  } else if (ErrorRecord* copy = record_->operations->Clone(record_)) {
    copy->next = next;
    ReleaseChain(std::exchange(record_, copy));
  } else {
    ReleaseChain(next);
  }
}

void Error::AddPosixError(int errnum) noexcept {
  AddPosixError(errnum, kSource.At("AddPosixError", 346));
}

void Error::AddPosixError(int errnum, const LineTag& tag) noexcept {
  SetReason(Adopt(Internal::NewPosixRecord(errnum, tag)));
}

Error Error::GetNextError() const noexcept {
  Error next;
  if (record_ != nullptr) next.record_ = AddReference(record_->next);
  return next;
}

String Error::ToString() const {
  String text;
  RenderChain(text, record_);
  return text;
}

Error Error::Adopt(ErrorRecord* record) noexcept {
  if (record == nullptr) return OutOfMemory();
  Error error;
  error.record_ = record;
  return error;
}

Error Error::OutOfMemory() noexcept {
  Error error;
  error.record_ = AddReference(OutOfMemoryRecord());
  return error;
}

}  // namespace Common
