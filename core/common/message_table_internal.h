#pragma once

#include <cstddef>
#include <cstdint>

#include "core/common/message_table.h"

// How a table lies in memory, and the way to put another one in force. For the message table and
// the catalogues only.
//
//   offset 0         4 bytes  size of the whole block
//   offset 4         4 bytes  number of rows
//   offset 8 + 4 * r 4 bytes  slot of row r: distance in bytes from the slot to the row's text
//
// Numbers are little-endian. Texts are UTF-16LE at even addresses or, for the rows of
// AnsiMessageRow, 8-bit; each is ended by a 0.
namespace Common::Internal {

// A block that was checked before: a table in force is read without further checks.
struct MessageTable {
  const unsigned char* block = nullptr;
  std::size_t size = 0;

  bool Holds(const void* address) const {
    return reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(block) <
           size;
  }
};

// Whether a row of that number is 8-bit text.
constexpr bool IsAnsiMessageRow(std::uint32_t row) {
  switch (static_cast<AnsiMessageRow>(row)) {
    case AnsiMessageRow::AnsiCodePage:
    case AnsiMessageRow::OemCodePage:
    case AnsiMessageRow::LanguageTag:
    case AnsiMessageRow::LanguageId:
    case AnsiMessageRow::LocaleName:
    case AnsiMessageRow::LanguageTag2:
    case AnsiMessageRow::FontCharsets:
      return true;
  }
  return false;
}

// Never without a block. Constant data: there before any code has run.
MessageTable GetBuiltInMessageTable() noexcept;
MessageTable GetCurrentMessageTable() noexcept;
// Puts a table in force, null the built-in one. The block must stay as it is as long as anybody
// renders errors: records and callers keep addresses of its texts. Threads: any; readers see the
// old or the new table.
void SetCurrentMessageTable(const unsigned char* block) noexcept;

}  // namespace Common::Internal
