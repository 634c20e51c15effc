#include "core/common/error_record.h"

#include <atomic>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string_view>

#include "core/common/error.h"
#include "core/common/error_record_internal.h"
#include "core/common/message_table_internal.h"

namespace Common {

namespace {

using Internal::GetField;
using Internal::GetFieldText;
using Internal::GetWideMessage;

// A parameter that a kind keeps in one of its fields.
struct Parameter {
  std::string_view name;
  char tag;  // 'N' number, 'A' 8-bit text, 'W' 16-bit text
  std::size_t field;
};

// What tells one kind from another. "$module" comes with all of them.
struct Kind {
  void (*message)(String& out, const ErrorRecord* record);
  const char* names;
  std::span<const Parameter> parameters;
};

constexpr char kModuleParameter[] = "$module";

template <const Kind& kKind>
const Parameter* FindParameter(const char* name, char tag) {
  if (name == nullptr) return nullptr;
  for (const Parameter& parameter : kKind.parameters) {
    if (parameter.tag == tag && parameter.name == name) return &parameter;
  }
  return nullptr;
}

template <const Kind& kKind>
std::uint64_t GetNumber(const ErrorRecord* record, const char* name) {
  const Parameter* parameter = FindParameter<kKind>(name, 'N');
  return parameter != nullptr ? GetField(record, parameter->field) : 0;
}

template <const Kind& kKind>
const char* GetAnsi(const ErrorRecord* record, const char* name) {
  if (const Parameter* parameter = FindParameter<kKind>(name, 'A')) {
    return static_cast<const char*>(GetFieldText(record, parameter->field));
  }
  return name != nullptr && std::strcmp(name, kModuleParameter) == 0 ? kModuleName : nullptr;
}

template <const Kind& kKind>
const char16_t* GetWide(const ErrorRecord* record, const char* name) {
  const Parameter* parameter = FindParameter<kKind>(name, 'W');
  if (parameter == nullptr) return nullptr;
  return static_cast<const char16_t*>(GetFieldText(record, parameter->field));
}

template <const Kind& kKind>
const char* GetNames(const ErrorRecord*) {
  return kKind.names;
}

template <const Kind& kKind>
constexpr ErrorRecordOperations kOperations{
    Internal::DestroyBlock, Internal::CloneBlock, kKind.message,   GetNumber<kKind>,
    GetAnsi<kKind>,         GetWide<kKind>,       GetNames<kKind>,
};

void GetNoMessage(String& out, const ErrorRecord*) {
  out.clear();
}

void WidenBytes(String& out, const char* text) {
  out.clear();
  for (; *text != 0; ++text) out.push_back(static_cast<unsigned char>(*text));
}

void GetNarrowMessage(String& out, const ErrorRecord* record) {
  WidenBytes(out, static_cast<const char*>(GetFieldText(record, 0)));
}

constexpr Kind kPlain{GetNoMessage, "$module", {}};
constexpr Kind kNarrow{GetNarrowMessage, "$module", {}};
constexpr Kind kWide{GetWideMessage, "$module", {}};

constexpr Parameter kTracedParameters[] = {{"TraceLevel", 'N', 1}};
constexpr Kind kTraced{GetWideMessage, "TraceLevel,$module", kTracedParameters};

constexpr Parameter kPathParameters[] = {{"path", 'A', 1}};
constexpr Kind kPath{GetWideMessage, "path,$module", kPathParameters};

constexpr Parameter kTwoPathsParameters[] = {{"path1", 'A', 1}, {"path2", 'A', 2}};
constexpr Kind kTwoPaths{GetWideMessage, "path1,path2,$module", kTwoPathsParameters};

constexpr Parameter kPathAndNameParameters[] = {{"path", 'W', 1}, {"name", 'W', 2}};
constexpr Kind kPathAndName{GetWideMessage, "path,name,$module", kPathAndNameParameters};

// The POSIX kind keeps `errno` in the place of the size: it has nothing but the head.

void GetPosixMessage(String& out, const ErrorRecord* record) {
  char buffer[256];
  const char* text = strerror_r(static_cast<int>(record->size), buffer, sizeof buffer);
  WidenBytes(out, text != nullptr ? text : "");
}

std::uint64_t GetPosixNumber(const ErrorRecord* record, const char* name) {
  return name != nullptr && std::strcmp(name, "code") == 0 ? record->size : 0;
}

ErrorRecord* CloneHead(const ErrorRecord* record, std::size_t size) {
  auto* block = new (std::nothrow) unsigned char[size];
  if (block == nullptr) return nullptr;
  // The count of the original is left alone: others may be changing it.
  std::memcpy(block + sizeof(record->references),
              reinterpret_cast<const unsigned char*>(record) + sizeof(record->references),
              size - sizeof(record->references));
  auto* copy = reinterpret_cast<ErrorRecord*>(block);
  copy->references = 1;
  copy->next = nullptr;
  return copy;
}

ErrorRecord* ClonePosix(const ErrorRecord* record) {
  return CloneHead(record, sizeof(ErrorRecord));
}

const char* GetPosixNames(const ErrorRecord*) {
  return "code,$module";
}

constexpr ErrorRecordOperations kPosixOperations{
    Internal::DestroyBlock, ClonePosix,      GetPosixMessage, GetPosixNumber,
    GetAnsi<kPlain>,        GetWide<kPlain>, GetPosixNames,
};

// One reference is its own, so that it never goes and never counts as held by one alone.
constinit ErrorRecord out_of_memory{1, kOutOfMemoryCode, 0,       nullptr, &kOperations<kPlain>,
                                    0, nullptr,          nullptr, 64};

// What goes into a field of a new record.
struct Field {
  enum class Form { Number, Narrow, Wide };

  explicit Field(std::uint64_t number_value) : form(Form::Number), number(number_value) {}
  explicit Field(const char* narrow) : form(Form::Narrow), text(narrow) {}
  explicit Field(const char16_t* wide) : form(Form::Wide), text(wide) {}

  // Bytes of the text with its terminator.
  std::size_t Measure() const {
    if (form == Form::Narrow) return std::strlen(static_cast<const char*>(text)) + 1;
    const auto* wide = static_cast<const char16_t*>(text);
    return (std::char_traits<char16_t>::length(wide) + 1) * sizeof(char16_t);
  }

  Form form;
  std::uint64_t number = 0;
  const void* text = nullptr;
  std::size_t copied = 0;  // bytes that go into the block
};

// Fields with 16-bit text stand before those with 8-bit text, which keeps the former aligned.
template <std::size_t kCount>
ErrorRecord* NewRecord(const ErrorRecordOperations& operations, std::uint32_t code,
                       const LineTag& tag, Field (&&fields)[kCount]) noexcept {
  if (code == 0) return nullptr;
  const Internal::MessageTable table = Internal::GetCurrentMessageTable();
  std::size_t size = sizeof(ErrorRecord) + kCount * sizeof(std::uint64_t);
  for (Field& field : fields) {
    if (field.text != nullptr && !table.Holds(field.text)) size += field.copied = field.Measure();
  }
  if (reinterpret_cast<std::uintptr_t>(table.block) < size) {
    // Addresses of the table would be taken for offsets.
    for (Field& field : fields) {
      if (field.text != nullptr && field.copied == 0) size += field.copied = field.Measure();
    }
  }
  ErrorRecord* record = Internal::NewBlock(size, operations, code, tag);
  if (record == nullptr) return AddReference(OutOfMemoryRecord());
  auto* block = reinterpret_cast<unsigned char*>(record);
  std::size_t place = sizeof(ErrorRecord);
  std::size_t at = place + kCount * sizeof(std::uint64_t);
  for (const Field& field : fields) {
    std::uint64_t value = field.number;
    if (field.copied != 0) {
      std::memcpy(block + at, field.text, field.copied);
      value = at;
      at += field.copied;
    } else if (field.text != nullptr) {
      value = reinterpret_cast<std::uintptr_t>(field.text);
    }
    std::memcpy(block + place, &value, sizeof value);
    place += sizeof value;
  }
  return record;
}

Error AdoptIfAny(ErrorRecord* record) noexcept {
  return record != nullptr ? Error::Adopt(record) : Error();
}

}  // namespace

namespace Internal {

ErrorRecord* NewBlock(std::size_t size, const ErrorRecordOperations& operations, std::uint32_t code,
                      const LineTag& tag) noexcept {
  if (size > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  auto* block = new (std::nothrow) unsigned char[size];
  if (block == nullptr) return nullptr;
  return ::new (block) ErrorRecord{1,        code,         tag.line,
                                   nullptr,  &operations,  tag.location,
                                   tag.file, tag.function, static_cast<std::uint32_t>(size)};
}

void DestroyBlock(ErrorRecord* record) {
  delete[] reinterpret_cast<unsigned char*>(record);
}

ErrorRecord* CloneBlock(const ErrorRecord* record) {
  return CloneHead(record, record->size);
}

std::uint64_t GetField(const ErrorRecord* record, std::size_t index) {
  std::uint64_t value;
  std::memcpy(
      &value,
      reinterpret_cast<const unsigned char*>(record) + sizeof(ErrorRecord) + index * sizeof value,
      sizeof value);
  return value;
}

const void* GetFieldText(const ErrorRecord* record, std::size_t index) {
  const std::uint64_t place = GetField(record, index);
  if (place == 0) return nullptr;
  if (place < record->size) return reinterpret_cast<const unsigned char*>(record) + place;
  return reinterpret_cast<const void*>(place);
}

void GetWideMessage(String& out, const ErrorRecord* record) {
  const auto* text = static_cast<const char16_t*>(GetFieldText(record, 0));
  if (text != nullptr) {
    out = text;
  } else {
    out.clear();
  }
}

ErrorRecord* NewPlainRecord(std::uint32_t code, const LineTag& tag) noexcept {
  if (code == 0) return nullptr;
  ErrorRecord* record = NewBlock(sizeof(ErrorRecord), kOperations<kPlain>, code, tag);
  return record != nullptr ? record : AddReference(OutOfMemoryRecord());
}

ErrorRecord* NewNarrowRecord(std::uint32_t code, const char* text, const LineTag& tag) noexcept {
  if (text == nullptr) return NewPlainRecord(code, tag);
  return NewRecord(kOperations<kNarrow>, code, tag, {Field(text)});
}

ErrorRecord* NewWideRecord(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept {
  if (text == nullptr) return NewPlainRecord(code, tag);
  return NewRecord(kOperations<kWide>, code, tag, {Field(text)});
}

ErrorRecord* NewPosixRecord(int errnum, const LineTag& tag) noexcept {
  ErrorRecord* record = NewBlock(sizeof(ErrorRecord), kPosixOperations, kPosixErrorCode, tag);
  if (record == nullptr) return AddReference(OutOfMemoryRecord());
  record->size = static_cast<std::uint32_t>(errnum);
  return record;
}

}  // namespace Internal

ErrorRecord* AddReference(ErrorRecord* record) noexcept {
  if (record != nullptr) {
    std::atomic_ref(record->references).fetch_add(1, std::memory_order_relaxed);
  }
  return record;
}

bool IsOnlyReference(const ErrorRecord* record) noexcept {
  return std::atomic_ref(const_cast<ErrorRecord*>(record)->references)
             .load(std::memory_order_acquire) == 1;
}

void ReleaseChain(ErrorRecord* record) noexcept {
  while (record != nullptr) {
    // Nobody else can reach a record with one reference, so the last holder need not count down.
    if (!IsOnlyReference(record) &&
        std::atomic_ref(record->references).fetch_sub(1, std::memory_order_acq_rel) != 1) {
      return;
    }
    ErrorRecord* next = record->next;
    record->operations->Destroy(record);
    record = next;
  }
}

ErrorRecord* OutOfMemoryRecord() noexcept {
  return &out_of_memory;
}

bool ParameterNames::Next(std::string& name) {
  while (*at_ == ',') ++at_;
  const std::size_t length = std::strcspn(at_, ",");
  name.assign(at_, length);
  at_ += length;
  return length != 0;
}

Error MakeTracedError(std::uint32_t code, const char16_t* text, const LineTag& tag) noexcept {
  return AdoptIfAny(
      NewRecord(kOperations<kTraced>, code, tag, {Field(text), Field(std::uint64_t{1})}));
}

Error MakePathError(std::uint32_t code, const char16_t* text, const char* path,
                    const LineTag& tag) noexcept {
  return AdoptIfAny(NewRecord(kOperations<kPath>, code, tag, {Field(text), Field(path)}));
}

Error MakeTwoPathsError(std::uint32_t code, const char16_t* text, const char* path1,
                        const char* path2, const LineTag& tag) noexcept {
  return AdoptIfAny(
      NewRecord(kOperations<kTwoPaths>, code, tag, {Field(text), Field(path1), Field(path2)}));
}

Error MakePathAndNameError(std::uint32_t code, const char16_t* text, const char16_t* path,
                           const char16_t* name, const LineTag& tag) noexcept {
  return AdoptIfAny(
      NewRecord(kOperations<kPathAndName>, code, tag, {Field(text), Field(path), Field(name)}));
}

}  // namespace Common
