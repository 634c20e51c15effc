#include "core/common/message_table.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <iterator>
#include <string_view>

#include "core/common/message_catalogue.h"
#include "core/common/message_table_internal.h"
#include "core/common/text.h"

namespace Common {

namespace {

// Texts are read where they lie, and so are the numbers.
static_assert(std::endian::native == std::endian::little);

struct WideRow {
  MessageRow row;
  std::u16string_view text;
};

struct AnsiRow {
  AnsiMessageRow row;
  std::string_view text;
};

// In the order of the rows.
constexpr WideRow kWideRows[] = {
    {MessageRow::Function, u"function"},
    {MessageRow::ErrorHeader, u"Error"},
    {MessageRow::File, u"file"},
    {MessageRow::Line, u"line"},
    {MessageRow::ReasonHeader, u"error"},
    {MessageRow::Success, u"Success"},
    {MessageRow::Channel, u"channel"},
    {MessageRow::TraceLevel, u"trace level"},
    {MessageRow::LevelCritical, u"critical error"},
    {MessageRow::LevelDebug, u"debug"},
    {MessageRow::LevelError, u"error"},
    {MessageRow::LevelInformation, u"information"},
    {MessageRow::LevelWarning, u"warning"},
    {MessageRow::AsyncCyclicJob, u"ASYNC: Cyclic action execution job."},
    {MessageRow::AsyncUnidentifiedJob, u"ASYNC: Unidentified job."},
    {MessageRow::AsyncException, u"ASYNC: Exception has occurred during operation '{0}'."},
    {MessageRow::AsyncFinalizeRun, u"Finalize run"},
    {MessageRow::AsyncPerform, u"Perform"},
    {MessageRow::AsyncStdException,
     u"ASYNC: STD exception '{1}' has occurred during operation '{0}'."},
    {MessageRow::AsyncUnknownException,
     u"ASYNC: Unknown exception has occurred during operation '{0}'."},
    {MessageRow::AsyncCanceled, u"ASYNC: The operation has been canceled."},
    {MessageRow::AsyncInvalidResult, u"ASYNC: The operation result is invalid."},
    {MessageRow::NoLocalBrowser,
     u"Failed to obtain the local service browser during local connection."},
    {MessageRow::DmlDisposedObject, u"DML: Cannot access a disposed object."},
    {MessageRow::DmlNoObjectKey, u"DML: Object identification cannot be found."},
    {MessageRow::DmlMissing, u"DML: Unproper use. Missing {0}."},
    {MessageRow::DmlViewClosing,
     u"DML: The operation is not permitted because the view is being closed."},
    {MessageRow::DmlAlreadyRunning, u"DML: The operation is already running."},
    {MessageRow::PorElementIndexNotFound, u"POR: The array element cannot be found."},
    {MessageRow::PorBranchNotFound, u"POR: Branch '{0}' cannot be found."},
    {MessageRow::PorAssignProperties, u"POR: Cannot assign units with different properties."},
    {MessageRow::PorAssignTraits, u"POR: Cannot assign units with different traits."},
    {MessageRow::PorAssignTypes, u"POR: Cannot assign units of different types."},
    {MessageRow::PorElementNotFound, u"POR: Element '{0}' cannot be found."},
    {MessageRow::PorRangeInclusion, u"POR: Failed to check range inclusion."},
    {MessageRow::PorInternal, u"POR: An internal error has occurred."},
    {MessageRow::PorUninitialized, u"POR: There was an attempt to access an uninitialized object."},
    {MessageRow::PorNullUnit, u"POR: Null units are forbidden."},
    {MessageRow::PorOutOfRange, u"POR: Out of range."},
    {MessageRow::PorPropertyNotFound, u"POR: Property '{0}' cannot be found."},
    {MessageRow::PorPropertyProcessing, u"POR: Property '{0}' processing error has occurred."},
    {MessageRow::PorTraitNotRegistered,
     u"POR: Name '{0}' of the trait is not registered for pattern."},
    {MessageRow::PorTraitNotFound, u"POR: Trait '{0}' cannot be found."},
    {MessageRow::PorTraitNotUnique, u"POR: Trait '{0}' is not unique."},
    {MessageRow::PorUnitCorrupted, u"POR: Unit object '{0}' is corrupted at position '{1}'."},
    {MessageRow::PorPathAccess, u"POR: Cannot access property by path '{0}'."},
    {MessageRow::PorPathEmptyToken, u"POR: Unit path '{0}' contains an empty token."},
    {MessageRow::PorPathEndSeparator,
     u"POR: There is an invalid separator at the end of path '{0}'."},
    {MessageRow::PorPathBeginSymbol,
     u"POR: Beginning of unit path '{0}' contains an incorrect symbol."},
    {MessageRow::PorStructureMismatch, u"POR: Object internal structure mismatch."},
    {MessageRow::PorPropertyTypeMismatch,
     u"POR: There is a mismatch in object property '{0}'. Expected property type is '{1}', actual "
     u"property type is '{2}'."},
    {MessageRow::PorTypeMismatch,
     u"POR: There is a mismatch in object internal structure. Expected object type is '{0}', "
     u"actual object type is '{1}'."},
    {MessageRow::FileAccessDenied, u"Access to the file is denied."},
    {MessageRow::FileExists, u"The file (folder) already exists."},
    {MessageRow::FileBackup, u"Error occurred while backing up."},
    {MessageRow::FileCanceled, u"Canceled."},
    {MessageRow::FileCorrupted, u"The file is corrupted."},
    {MessageRow::FileCreate, u"Error occurred while creating the file."},
    {MessageRow::FileDiskFull, u"The disk is full."},
    {MessageRow::FileEnd, u"The end of the file has been reached."},
    {MessageRow::FileHardLinks, u"Hard links are not supported by the file system."},
    {MessageRow::FileLock, u"Failed to lock the file."},
    {MessageRow::FileNotFound, u"The specified file does not exist."},
    {MessageRow::FileDriveNotReady, u"The drive is not ready."},
    {MessageRow::FileOpen, u"Error occurred while opening the file."},
    {MessageRow::FileNoMemory, u"Not enough memory to complete the operation."},
    {MessageRow::FileReadOnly, u"The file is read-only."},
    {MessageRow::FileRead, u"Error occurred while reading the file."},
    {MessageRow::FileDelete, u"Error occurred while deleting the file."},
    {MessageRow::FileRename, u"Error occurred while renaming the file."},
    {MessageRow::FileRecover, u"Error occurred while recovering."},
    {MessageRow::FileSecurity, u"Security error occurred while opening the file for writing."},
    {MessageRow::FileSeek, u"Error occurred while searching in the file."},
    {MessageRow::FileSymbolicLinks, u"Symbolic links are not supported by the file system."},
    {MessageRow::FileUnsupported, u"The operation is not supported."},
    {MessageRow::FileWrite, u"Error occurred while writing to the file."},
    {MessageRow::SecurityInvalidResult,
     u"An invalid operation result is returned from security core."},
    {MessageRow::SerializationInconsistent,
     u"Cannot deserialize the object. The object's metadata is inconsistent. Either the versions "
     u"of the product's components are incompatible with each other or the object was created by "
     u"an incompatible product version."},
    {MessageRow::SerializationNoMetaInfo, u"Cannot find the object's meta info."},
};

constexpr AnsiRow kAnsiRows[] = {
    {AnsiMessageRow::AnsiCodePage, "windows-1252"},
    {AnsiMessageRow::OemCodePage, "windows-850"},
    {AnsiMessageRow::LanguageTag, "en-US"},
    {AnsiMessageRow::LanguageId, "0x0409"},
    {AnsiMessageRow::LocaleName, "en_US"},
    {AnsiMessageRow::LanguageTag2, "en-US"},
    {AnsiMessageRow::FontCharsets, "iso10646-1,iso8859-1"},
};

template <class Row, std::size_t kCount>
consteval bool IsAscending(const Row (&rows)[kCount]) {
  return std::adjacent_find(std::begin(rows), std::end(rows), [](const Row& a, const Row& b) {
           return a.row >= b.row;
         }) == std::end(rows);
}
static_assert(std::size(kWideRows) == 79 && IsAscending(kWideRows));
static_assert(std::size(kAnsiRows) == 7 && IsAscending(kAnsiRows));

// The block is built of 16-bit units so that the texts are what they are read as.
constexpr std::size_t kSlots = 4;                              // first slot, in units
constexpr std::size_t kEmpty = kSlots + 2 * kMessageRowCount;  // text of all rows not listed
constexpr std::size_t kTexts = kEmpty + 1;

consteval std::size_t CountUnits() {
  std::size_t units = kTexts;
  for (const WideRow& row : kWideRows) units += row.text.size() + 1;
  for (const AnsiRow& row : kAnsiRows) units += row.text.size() / 2 + 1;
  return units;
}

struct Block {
  alignas(8) std::array<char16_t, CountUnits()> units{};

  constexpr void Put32(std::size_t at, std::size_t value) {
    units[at] = static_cast<char16_t>(value);
    units[at + 1] = static_cast<char16_t>(value >> 16);
  }
  constexpr std::size_t Get32(std::size_t at) const {
    return units[at] | static_cast<std::size_t>(units[at + 1]) << 16;
  }
  constexpr void PutSlot(std::size_t row, std::size_t text) {
    const std::size_t slot = kSlots + 2 * row;
    Put32(slot, 2 * (text - slot));
  }
  // Place of the row's text, in units.
  constexpr std::size_t GetText(std::size_t row) const {
    const std::size_t slot = kSlots + 2 * row;
    return slot + Get32(slot) / 2;
  }
};

consteval Block MakeBlock() {
  Block block;
  block.Put32(0, sizeof(Block::units));
  block.Put32(2, kMessageRowCount);
  for (std::size_t row = 0; row < kMessageRowCount; ++row) block.PutSlot(row, kEmpty);
  std::size_t at = kTexts;
  for (const WideRow& row : kWideRows) {
    block.PutSlot(static_cast<std::size_t>(row.row), at);
    for (const char16_t unit : row.text) block.units[at++] = unit;
    ++at;
  }
  for (const AnsiRow& row : kAnsiRows) {
    block.PutSlot(static_cast<std::size_t>(row.row), at);
    for (std::size_t i = 0; i < row.text.size(); ++i) {
      block.units[at + i / 2] |= static_cast<char16_t>(row.text[i] << (8 * (i % 2)));
    }
    at += row.text.size() / 2 + 1;
  }
  return block;
}

constexpr Block kBuiltIn = MakeBlock();

// Each listed row is found in its place, each other one is empty.
consteval bool IsComplete() {
  std::size_t wide = 0;
  std::size_t ansi = 0;
  for (std::size_t row = 0; row < kMessageRowCount; ++row) {
    const std::size_t at = kBuiltIn.GetText(row);
    if (wide < std::size(kWideRows) && row == static_cast<std::size_t>(kWideRows[wide].row)) {
      if (std::u16string_view(&kBuiltIn.units[at]) != kWideRows[wide++].text) return false;
    } else if (ansi < std::size(kAnsiRows) &&
               row == static_cast<std::size_t>(kAnsiRows[ansi].row)) {
      const std::string_view text = kAnsiRows[ansi++].text;
      for (std::size_t i = 0; i <= text.size(); ++i) {
        const char expected = i < text.size() ? text[i] : '\0';
        if (static_cast<char>(kBuiltIn.units[at + i / 2] >> (8 * (i % 2))) != expected) {
          return false;
        }
      }
    } else if (kBuiltIn.units[at] != 0) {
      return false;
    }
  }
  return wide == std::size(kWideRows) && ansi == std::size(kAnsiRows);
}
static_assert(IsComplete());
static_assert(kBuiltIn.Get32(0) == sizeof(kBuiltIn.units) && kBuiltIn.Get32(2) == 694);

const unsigned char* GetBuiltInBlock() {
  return reinterpret_cast<const unsigned char*>(kBuiltIn.units.data());
}

// Null, as at start, stands for the built-in table, so that no code has to run for it, and for a
// text that nobody has asked for yet.
constinit std::atomic<const unsigned char*> current_block{nullptr};

const unsigned char* GetCurrentBlock() {
  const unsigned char* block = current_block.load(std::memory_order_acquire);
  return block != nullptr ? block : GetBuiltInBlock();
}

// Kept out of the way of the calls that find a table in force.
[[gnu::noinline, gnu::cold]] const unsigned char* AskForBlock() noexcept {
  Internal::StartCatalogues();
  // From now on nobody comes here.
  const unsigned char* block = nullptr;
  current_block.compare_exchange_strong(block, GetBuiltInBlock(), std::memory_order_acq_rel,
                                        std::memory_order_acquire);
  return block != nullptr ? block : GetBuiltInBlock();
}

std::uint32_t Read32(const unsigned char* at) {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

const unsigned char* FindText(std::uint32_t row) {
  const unsigned char* block = current_block.load(std::memory_order_acquire);
  if (block == nullptr) [[unlikely]]
    block = AskForBlock();
  const unsigned char* slot = block + 8 + std::size_t{4} * row;
  return slot + Read32(slot);
}

bool IsDigit(char16_t unit) {
  return unit >= u'0' && unit <= u'9';
}

// A place of a pattern: "{", digits, "}".
struct Place {
  std::size_t begin;
  std::size_t end;
  std::size_t index;  // all ones if it is too large for a number
};

// Finds the first place that begins at or behind `at`. False if there is none.
bool FindPlace(const String& pattern, std::size_t at, Place& place) {
  constexpr std::size_t kReadDigits = 63;
  constexpr std::size_t kTooLarge = static_cast<std::size_t>(-1);
  while ((at = pattern.find(u'{', at)) != String::npos) {
    place.begin = at++;
    place.index = 0;
    const std::size_t digits = at;
    for (; at < pattern.size() && IsDigit(pattern[at]); ++at) {
      if (at - digits >= kReadDigits) continue;
      const std::size_t digit = pattern[at] - u'0';
      place.index = place.index > (kTooLarge - digit) / 10 ? kTooLarge : place.index * 10 + digit;
    }
    if (at > digits && at < pattern.size() && pattern[at] == u'}') {
      place.end = at + 1;
      return true;
    }
  }
  return false;
}

void FormatMessage(String& out, const String& pattern, const String* arguments, std::size_t count) {
  String result;
  std::size_t at = 0;
  for (Place place; FindPlace(pattern, at, place) && place.index < count; at = place.end) {
    result.append(pattern, at, place.begin - at);
    result.append(arguments[place.index]);
  }
  result.append(pattern, at, String::npos);
  out = std::move(result);
}

}  // namespace

const char16_t* GetMessageText(MessageRow row) {
  return reinterpret_cast<const char16_t*>(FindText(static_cast<std::uint32_t>(row)));
}

const char* GetMessageText(AnsiMessageRow row) {
  return reinterpret_cast<const char*>(FindText(static_cast<std::uint32_t>(row)));
}

void FormatMessage(String& out, const String& pattern, const std::vector<String>& arguments) {
  FormatMessage(out, pattern, arguments.data(), arguments.size());
}

void FormatMessage(String& out, const String& pattern, const String& argument) {
  FormatMessage(out, pattern, &argument, 1);
}

void FormatMessage(String& out, const String& pattern, const std::string& argument) {
  String wide;
  ToUtf16(wide, argument.data(), argument.size());
  FormatMessage(out, pattern, &wide, 1);
}

namespace Internal {

MessageTable GetBuiltInMessageTable() noexcept {
  return {GetBuiltInBlock(), sizeof(kBuiltIn.units)};
}

MessageTable GetCurrentMessageTable() noexcept {
  const unsigned char* block = GetCurrentBlock();
  return {block, Read32(block)};
}

void SetCurrentMessageTable(const unsigned char* block) noexcept {
  current_block.store(block != nullptr ? block : GetBuiltInBlock(), std::memory_order_release);
}

}  // namespace Internal

}  // namespace Common
