#pragma once

#include <cstddef>
#include <cstdint>

#include "core/common/error_record.h"
#include "core/common/line_tag.h"

// What the kinds of record share. A block is laid out as
//
//   offset 0   64 bytes  the head, an ErrorRecord
//   offset 64  8 each    the fields of the kind: numbers, or places of text
//   behind               texts that were copied, 16-bit ones first
//
// A place of text is an offset into the block when it is smaller than the block's size, otherwise
// an address, 0 for no text.
namespace Common::Internal {

// A block with its head filled in, one reference and nothing linked; what is behind the head is
// left to the caller. Null when memory is out, or when 32 bits can't count its bytes.
ErrorRecord* NewBlock(std::size_t size, const ErrorRecordOperations& operations, std::uint32_t code,
                      const LineTag& tag) noexcept;
void DestroyBlock(ErrorRecord* record);
// Copies as many bytes as the head tells.
ErrorRecord* CloneBlock(const ErrorRecord* record);

// The field at `index`, and the text that it places.
std::uint64_t GetField(const ErrorRecord* record, std::size_t index);
const void* GetFieldText(const ErrorRecord* record, std::size_t index);
// The message of the kinds with 16-bit text, which keep it in field 0.
void GetWideMessage(String& out, const ErrorRecord* record);

// Records of the kinds behind the constructors of Error. A null text makes the plain kind. With
// code 0 they are null; when memory is out they are the out-of-memory record, referenced.
ErrorRecord* NewPlainRecord(std::uint32_t code, const LineTag& tag) noexcept;
ErrorRecord* NewNarrowRecord(std::uint32_t code, const char* text, const LineTag& tag) noexcept;
ErrorRecord* NewWideRecord(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept;
ErrorRecord* NewPosixRecord(int errnum, const LineTag& tag) noexcept;

}  // namespace Common::Internal
