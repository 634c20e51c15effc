#pragma once

#include <cstdint>
#include <memory>

#include "core/common/line_tag.h"
#include "core/common/string.h"

namespace Common {

struct ErrorRecord;

// Two codes that belong to no module.
inline constexpr std::uint32_t kPosixErrorCode = 0xFFF1;
inline constexpr std::uint32_t kOutOfMemoryCode = 0xFFF2;

// A failure: a counted pointer to an immutable chain of records, null for "no error".
//
// Each record has a 32-bit code (high half the module, low half the error; 0 is success), a
// message, a line tag and named parameters. The record behind it is its reason.
//
// Thrown by value, stored in units, handed to action handlers, sent in a byte form.
// Copying costs one atomic increment. Making an error never throws: when memory is out the
// process-wide out-of-memory record takes the new record's place.
// Threads: chains are shared freely between threads; one Error object is not.
class Error {
 public:
  Error() noexcept = default;
  // A record of the plain kind. Code 0 makes no record.
  Error(std::uint32_t code, const LineTag& tag) noexcept;
  // A record with an 8-bit message (each byte one character). Null or empty is no message.
  Error(std::uint32_t code, const char* text, const LineTag& tag) noexcept;
  // A record with a 16-bit message. Text of the message table is referred to, not copied.
  Error(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept;

  Error(const Error& other) noexcept;
  Error(Error&& other) noexcept : record_(other.record_) { other.record_ = nullptr; }
  Error& operator=(const Error& other) noexcept;
  Error& operator=(Error&& other) noexcept;

  virtual void DummyVirtualMethod();
  virtual ~Error();

  // Code of the head record, 0 when there is none.
  std::uint32_t GetCode() const noexcept;
  // Message of the head record.
  String GetMessage() const;
  // Place of the head record, all zero when there is none.
  LineTag GetLineTag() const noexcept;

  // A record with a code other than 0.
  bool IsFailure() const noexcept { return GetCode() != 0; }
  // Whether this error or one of its reasons has `code`.
  bool HoldsCode(std::uint32_t code) const noexcept;

  // Makes `reason` the next link of this error, in place of an earlier reason. A head that others
  // share is cloned first; if that fails for lack of memory this error stays as it was.
  void SetReason(const Error& reason) noexcept;
  // Makes a record of the POSIX kind (code 0xFFF1, message of `errnum`) the reason.
  void AddPosixError(int errnum) noexcept;
  void AddPosixError(int errnum, const LineTag& tag) noexcept;
  // The error that begins with the next record; empty at the end of the chain.
  Error GetNextError() const noexcept;

  // The text of the whole chain in the words of the current message table.
  String ToString() const;

  // The byte form: version 1, then the records of the chain. Throws std::bad_alloc.
  std::unique_ptr<unsigned char[]> Save(unsigned int& size) const;
  // Reads a byte form. Bad data never throws: the good front part of the chain is the result,
  // an empty error if there is none. A record whose repeated parameter names would multiply its
  // size is bad, too. When memory is out, the out-of-memory record stands behind the
  // records read so far.
  static Error Load(const unsigned char* data, unsigned int size);

  // The head record, borrowed; null for "no error". See core/common/error_record.h.
  const ErrorRecord* GetRecord() const noexcept { return record_; }
  // An error that takes over one reference on `record`. Null gives the out-of-memory error.
  static Error Adopt(ErrorRecord* record) noexcept;
  static Error OutOfMemory() noexcept;

 private:
  ErrorRecord* record_ = nullptr;
};

// Records of the further kinds. A null `text` is no message; text of the message table is
// referred to, other text is copied, as are paths and names.
//
// Traced: parameter "TraceLevel" with value 1. The kind of the unit model and of the jobs.
Error MakeTracedError(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept;
// Parameter "path", UTF-8 or the local code page.
Error MakePathError(std::uint32_t code, const char16_t* text, const char* path,
                    const LineTag& tag) noexcept;
// Parameters "path1" and "path2".
Error MakeTwoPathsError(std::uint32_t code, const char16_t* text, const char* path1,
                        const char* path2, const LineTag& tag) noexcept;
// Parameters "path" and "name", 16-bit text.
Error MakePathAndNameError(std::uint32_t code, const char16_t* text, const char16_t* path,
                           const char16_t* name, const LineTag& tag) noexcept;

}  // namespace Common
