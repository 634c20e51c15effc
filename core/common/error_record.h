#pragma once

#include <cstdint>
#include <string>

#include "core/common/string.h"

namespace Common {

struct ErrorRecord;

// The functions of one kind of record. `name` is compared exactly.
struct ErrorRecordOperations {
  // Frees the record's block, not what is linked behind it.
  void (*Destroy)(ErrorRecord* record);
  // A copy with one reference and no `next`; null when memory is out.
  ErrorRecord* (*Clone)(const ErrorRecord* record);
  void (*GetMessage)(String& out, const ErrorRecord* record);
  // Value of the parameter, 0 if there is no number of that name.
  std::uint64_t (*GetNumber)(const ErrorRecord* record, const char* name);
  // Value of the parameter, null if there is no such text of that name. Lives as the record does.
  const char* (*GetAnsi)(const ErrorRecord* record, const char* name);
  const char16_t* (*GetWide)(const ErrorRecord* record, const char* name);
  // The names of the parameters, separated by commas without blanks.
  const char* (*GetParameterNames)(const ErrorRecord* record);
};

// One link of an error: the head of a block of memory that was made with `new unsigned char[]`.
// What lies behind the head is the business of the kind.
//
// A record is immutable once it is shared; only the holder of a single reference may change `next`.
struct ErrorRecord {
  std::uint64_t references;  // atomic: AddReference, ReleaseChain, IsOnlyReference
  std::uint32_t code;
  std::uint32_t line;
  ErrorRecord* next;  // the reason, counted; null at the end of the chain
  const ErrorRecordOperations* operations;
  std::uint64_t location;
  const char* file;  // not owned, may be null
  const char* function;
  std::uint32_t size;  // bytes of the block; the POSIX kind keeps `errno` here
};
static_assert(sizeof(ErrorRecord) == 64);

// Value of the parameter "$module": the program that made the record, its platform and build.
inline constexpr char kModuleName[] = "objprobe_lxa64_43267";

// Takes one more reference; null is allowed. Returns `record`.
ErrorRecord* AddReference(ErrorRecord* record) noexcept;
// Drops one reference and, as far as it was the last, those that the chain holds behind it. A loop.
void ReleaseChain(ErrorRecord* record) noexcept;
// Whether the caller's reference is the only one.
bool IsOnlyReference(const ErrorRecord* record) noexcept;
// The static record of the out-of-memory error. Takes no reference. Never destroyed.
ErrorRecord* OutOfMemoryRecord() noexcept;

// Takes the parameter names of a record one by one, in their order; empty ones are passed over.
class ParameterNames {
 public:
  explicit ParameterNames(const ErrorRecord& record)
      : at_(record.operations->GetParameterNames(&record)) {}

  // False when there is no further name.
  bool Next(std::string& name);

 private:
  const char* at_;
};

}  // namespace Common
