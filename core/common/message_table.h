#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/common/string.h"

namespace Common {

// Number of rows of a message table. A catalogue of any other count is refused.
inline constexpr std::uint32_t kMessageRowCount = 694;

// The rows of 16-bit text that the program reads; the value is the row's place in the table.
enum class MessageRow : std::uint32_t {
  // Rendering of errors
  Function = 21,
  ErrorHeader = 22,
  File = 23,
  Line = 24,
  ReasonHeader = 25,
  Success = 26,
  Channel = 34,
  TraceLevel = 35,
  LevelCritical = 36,
  LevelDebug = 37,
  LevelError = 38,
  LevelInformation = 39,
  LevelWarning = 40,
  // Async
  AsyncCyclicJob = 50,
  AsyncUnidentifiedJob = 65,
  AsyncException = 128,
  AsyncFinalizeRun = 129,
  AsyncPerform = 130,
  AsyncStdException = 131,
  AsyncUnknownException = 132,
  AsyncCanceled = 138,
  AsyncInvalidResult = 139,
  // Connection
  NoLocalBrowser = 171,
  // DML
  DmlDisposedObject = 218,
  DmlNoObjectKey = 242,
  DmlMissing = 272,
  DmlViewClosing = 278,
  DmlAlreadyRunning = 280,
  // Units
  PorElementIndexNotFound = 322,
  PorBranchNotFound = 325,
  PorAssignProperties = 326,
  PorAssignTraits = 327,
  PorAssignTypes = 328,
  PorElementNotFound = 339,
  PorRangeInclusion = 341,
  PorInternal = 342,
  PorUninitialized = 349,
  PorNullUnit = 351,
  PorOutOfRange = 352,
  PorPropertyNotFound = 353,
  PorPropertyProcessing = 354,
  PorTraitNotRegistered = 358,
  PorTraitNotFound = 359,
  PorTraitNotUnique = 360,
  PorUnitCorrupted = 366,
  PorPathAccess = 367,
  PorPathEmptyToken = 369,
  PorPathEndSeparator = 370,
  PorPathBeginSymbol = 371,
  PorStructureMismatch = 373,
  PorPropertyTypeMismatch = 374,
  PorTypeMismatch = 375,
  // Files
  FileAccessDenied = 496,
  FileExists = 497,
  FileBackup = 499,
  FileCanceled = 502,
  FileCorrupted = 504,
  FileCreate = 505,
  FileDiskFull = 508,
  FileEnd = 512,
  FileHardLinks = 516,
  FileLock = 520,
  FileNotFound = 524,
  FileDriveNotReady = 526,
  FileOpen = 528,
  FileNoMemory = 529,
  FileReadOnly = 531,
  FileRead = 532,
  FileDelete = 533,
  FileRename = 534,
  FileRecover = 535,
  FileSecurity = 536,
  FileSeek = 537,
  FileSymbolicLinks = 538,
  FileUnsupported = 541,
  FileWrite = 546,
  // Security
  SecurityInvalidResult = 648,
  // Serialization
  SerializationInconsistent = 652,
  SerializationNoMetaInfo = 657,
};

// The rows of 8-bit text: values that differ by language and are read by name.
enum class AnsiMessageRow : std::uint32_t {
  AnsiCodePage = 43,
  OemCodePage = 44,
  LanguageTag = 45,
  LanguageId = 559,
  LocaleName = 669,
  LanguageTag2 = 670,
  FontCharsets = 682,
};

// Address of the row's text in the current table, zero-terminated. Never null. The first call loads
// the catalogue of the user's language (message_catalogue.h); other threads may see English
// meanwhile. Text stays valid, also when another table comes into force, until the exit handlers of
// the process run. `errno` is kept.
// Works before any code has run (static initialisers). Threads: any.
const char16_t* GetMessageText(MessageRow row);
const char* GetMessageText(AnsiMessageRow row);

// Fills the places "{n}" of `pattern` (n: ASCII digits, of which 63 are read) from `arguments`. An
// inserted text is not scanned again. An index without an argument ends formatting: the rest stays.
void FormatMessage(String& out, const String& pattern, const std::vector<String>& arguments);
void FormatMessage(String& out, const String& pattern, const String& argument);
// The narrow argument is UTF-8.
void FormatMessage(String& out, const String& pattern, const std::string& argument);

}  // namespace Common
