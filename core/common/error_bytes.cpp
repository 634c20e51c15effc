#include "core/common/error.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "core/common/error_record.h"
#include "core/common/error_record_internal.h"
#include "core/common/text.h"
#include "core/common/unix/mutex.h"

namespace Common {

namespace {

// The byte form of an error: a version byte of 1, then the records of the chain, head first, up to
// the end of the data. Numbers are little-endian, texts end with a 0. One record is
//
//   code       4 bytes
//   location   8 bytes
//   message    text, UTF-8
//   parameters each a name, a tag byte and a value: "A" 8-bit text, "W" text in UTF-8 that is kept
//              in 16 bits, "N" a number of 8 bytes
//   $file      if there is a file: like a parameter with tag "A"
//   $func      if there is a function: the same
//   $line      if the line is not 0: like a parameter with tag "N"
//   end        a 0, in the place of a name

constexpr unsigned char kVersion = 1;
constexpr std::size_t kRecordHead = 12;  // code and location
// A look-up by name gives the first value of that name, so a name that is there many times, or is a
// list of names itself, has it written and printed as often. What comes from outside may gain so
// many bytes that way, and no more.
constexpr std::size_t kMaxRepetition = 4096;
constexpr char kFileName[] = "$file";
constexpr char kFunctionName[] = "$func";
constexpr char kLineName[] = "$line";

// Bytes under construction. The capacity grows by half, or to what is needed if that is more.
class ByteWriter {
 public:
  void PutBytes(const void* bytes, std::size_t count) {
    if (count > capacity_ - size_) Grow(count);
    std::memcpy(bytes_.get() + size_, bytes, count);
    size_ += count;
  }
  void PutByte(unsigned char byte) { PutBytes(&byte, 1); }
  void PutNumber(std::uint64_t number, int width) {
    unsigned char bytes[8];
    for (int i = 0; i < width; ++i) bytes[i] = static_cast<unsigned char>(number >> (8 * i));
    PutBytes(bytes, static_cast<std::size_t>(width));
  }
  void PutText(const char* text) { PutBytes(text, std::strlen(text) + 1); }

  unsigned int GetSize() const { return static_cast<unsigned int>(size_); }
  std::unique_ptr<unsigned char[]> Take() { return std::move(bytes_); }

 private:
  void Grow(std::size_t count) {
    const std::size_t needed = size_ + count;
    constexpr std::size_t kMaxSize = std::numeric_limits<unsigned int>::max();
    if (needed > kMaxSize) throw std::bad_alloc();
    const std::size_t capacity = std::min(std::max(capacity_ + capacity_ / 2, needed), kMaxSize);
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[capacity]);
    if (size_ != 0) std::memcpy(bytes.get(), bytes_.get(), size_);
    bytes_ = std::move(bytes);
    capacity_ = capacity;
  }

  std::unique_ptr<unsigned char[]> bytes_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

void WriteParameter(ByteWriter& out, const ErrorRecord& record, const char* name,
                    std::string& utf8) {
  const ErrorRecordOperations& operations = *record.operations;
  out.PutText(name);
  if (const char* ansi = operations.GetAnsi(&record, name)) {
    out.PutByte('A');
    out.PutText(ansi);
  } else if (const char16_t* wide = operations.GetWide(&record, name)) {
    ToUtf8(utf8, wide);
    out.PutByte('W');
    out.PutText(utf8.c_str());
  } else {
    out.PutByte('N');
    out.PutNumber(operations.GetNumber(&record, name), 8);
  }
}

void WriteTagText(ByteWriter& out, const char* name, const char* text) {
  if (text == nullptr) return;
  out.PutText(name);
  out.PutByte('A');
  out.PutText(text);
}

void WriteRecord(ByteWriter& out, const ErrorRecord& record) {
  out.PutNumber(record.code, 4);
  out.PutNumber(record.location, 8);
  String message;
  std::string utf8;
  record.operations->GetMessage(message, &record);
  ToUtf8(utf8, message.data(), message.size());
  out.PutText(utf8.c_str());
  ParameterNames names(record);
  for (std::string name; names.Next(name);) WriteParameter(out, record, name.c_str(), utf8);
  WriteTagText(out, kFileName, record.file);
  WriteTagText(out, kFunctionName, record.function);
  if (record.line != 0) {
    out.PutText(kLineName);
    out.PutByte('N');
    out.PutNumber(record.line, 8);
  }
  out.PutByte(0);
}

// The address of `text` in the pool of file and function texts, which keeps one of each for good:
// records point there.
const char* GetPooledText(std::string_view text) {
  struct Pool {
    Mutex mutex;
    std::set<std::string, std::less<>> texts;
  };
  static Pool& pool = *new Pool;  // not destroyed: errors may outlive static objects
  MutexLock lock(pool.mutex);
  auto found = pool.texts.find(text);
  if (found == pool.texts.end()) found = pool.texts.emplace(text).first;
  return found->c_str();
}

// Takes bytes from the front of a byte form; each step is false, and takes nothing, if there are
// too few.
class ByteReader {
 public:
  ByteReader(const unsigned char* data, std::size_t size) : at_(data), end_(data + size) {}

  std::size_t GetLeft() const { return static_cast<std::size_t>(end_ - at_); }

  bool GetByte(char& byte) {
    if (at_ == end_) return false;
    byte = static_cast<char>(*at_++);
    return true;
  }
  template <class Number>
  bool GetNumber(Number& number) {
    if (GetLeft() < sizeof(Number)) return false;
    number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) number |= Number{at_[i]} << (8 * i);
    at_ += sizeof(Number);
    return true;
  }
  // Text and its terminator; `text` is without it, though it stands there in the data.
  bool GetText(std::string_view& text) {
    const void* end = at_ != end_ ? std::memchr(at_, 0, GetLeft()) : nullptr;
    if (end == nullptr) return false;
    const auto* begin = reinterpret_cast<const char*>(at_);
    at_ = static_cast<const unsigned char*>(end) + 1;
    text = {begin, static_cast<std::size_t>(reinterpret_cast<const char*>(at_) - 1 - begin)};
    return true;
  }

 private:
  const unsigned char* at_;
  const unsigned char* end_;
};

// The loaded kind. Fields: the places of the message and of the parameter names, and the number of
// parameters. The parameters follow, ordered by name, tag and their order in the byte form, so
// that many of them can't make a look-up slow.
constexpr std::size_t kMessageField = 0;
constexpr std::size_t kNamesField = 1;
constexpr std::size_t kCountField = 2;
constexpr std::size_t kLoadedFields = 3;
constexpr std::size_t kParametersAt = sizeof(ErrorRecord) + kLoadedFields * sizeof(std::uint64_t);

struct LoadedParameter {
  std::uint64_t value;  // the number, or the text's offset in the block
  std::uint32_t name;   // offset in the list of names
  std::uint32_t length;
  std::uint32_t order;
  char tag;

  std::string_view GetName(const char* names) const { return {names + name, length}; }
};

const char* GetLoadedNames(const ErrorRecord* record) {
  return static_cast<const char*>(Internal::GetFieldText(record, kNamesField));
}

// The first parameter of that name with that tag, null if there is none.
const LoadedParameter* FindLoaded(const ErrorRecord* record, const char* name, char tag) {
  if (name == nullptr) return nullptr;
  const std::string_view wanted(name);
  const char* names = GetLoadedNames(record);
  const auto* begin = reinterpret_cast<const LoadedParameter*>(
      reinterpret_cast<const unsigned char*>(record) + kParametersAt);
  const auto* end = begin + Internal::GetField(record, kCountField);
  const auto* found = std::partition_point(begin, end, [&](const LoadedParameter& parameter) {
    return std::tuple(parameter.GetName(names), parameter.tag) < std::tuple(wanted, tag);
  });
  return found != end && found->tag == tag && found->GetName(names) == wanted ? found : nullptr;
}

std::uint64_t GetLoadedNumber(const ErrorRecord* record, const char* name) {
  const LoadedParameter* parameter = FindLoaded(record, name, 'N');
  return parameter != nullptr ? parameter->value : 0;
}

const void* GetLoadedText(const ErrorRecord* record, const char* name, char tag) {
  const LoadedParameter* parameter = FindLoaded(record, name, tag);
  if (parameter == nullptr) return nullptr;
  return reinterpret_cast<const unsigned char*>(record) + parameter->value;
}

const char* GetLoadedAnsi(const ErrorRecord* record, const char* name) {
  return static_cast<const char*>(GetLoadedText(record, name, 'A'));
}

const char16_t* GetLoadedWide(const ErrorRecord* record, const char* name) {
  return static_cast<const char16_t*>(GetLoadedText(record, name, 'W'));
}

constexpr ErrorRecordOperations kLoadedOperations{
    Internal::DestroyBlock, Internal::CloneBlock, Internal::GetWideMessage, GetLoadedNumber,
    GetLoadedAnsi,          GetLoadedWide,        GetLoadedNames,
};
static_assert(kMessageField == 0);  // where GetWideMessage looks

// Decodes one record after the other; its memory is used again. What views the data is valid as
// long as the data is.
class RecordLoader {
 public:
  // False if there is no complete record.
  bool Read(ByteReader& in) {
    wide_.clear();
    ansi_.clear();
    names_.clear();
    parameters_.clear();
    file_ = function_ = {};
    line_ = 0;
    std::string_view message;
    if (!in.GetNumber(code_) || code_ == 0 || !in.GetNumber(location_) || !in.GetText(message) ||
        !AddWide(message)) {
      return false;
    }
    for (;;) {
      std::string_view name;
      char tag;
      if (!in.GetText(name)) return false;
      if (name.empty()) return true;
      if (!in.GetByte(tag) || !ReadParameter(in, name, tag)) return false;
    }
  }

  // The record that was read; null when memory is out.
  ErrorRecord* Make() {
    const LineTag tag{location_, Pool(file_), Pool(function_), line_};
    const std::size_t wide_at = kParametersAt + parameters_.size() * sizeof(LoadedParameter);
    const std::size_t ansi_at = wide_at + wide_.size() * sizeof(char16_t);
    const std::size_t names_at = ansi_at + ansi_.size();
    ErrorRecord* record =
        Internal::NewBlock(names_at + names_.size() + 1, kLoadedOperations, code_, tag);
    if (record == nullptr) return nullptr;
    for (LoadedParameter& parameter : parameters_) {
      if (parameter.tag == 'A') parameter.value += ansi_at;
      if (parameter.tag == 'W') parameter.value = wide_at + parameter.value * sizeof(char16_t);
    }
    std::sort(parameters_.begin(), parameters_.end(),
              [names = names_.data()](const LoadedParameter& a, const LoadedParameter& b) {
                return std::tuple(a.GetName(names), a.tag, a.order) <
                       std::tuple(b.GetName(names), b.tag, b.order);
              });
    std::uint64_t fields[kLoadedFields];
    fields[kMessageField] = wide_at;
    fields[kNamesField] = names_at;
    fields[kCountField] = parameters_.size();
    auto* block = reinterpret_cast<unsigned char*>(record);
    std::memcpy(block + sizeof(ErrorRecord), fields, sizeof fields);
    std::copy(parameters_.begin(), parameters_.end(),
              reinterpret_cast<LoadedParameter*>(block + kParametersAt));
    std::memcpy(block + wide_at, wide_.data(), wide_.size() * sizeof(char16_t));
    std::memcpy(block + ansi_at, ansi_.data(), ansi_.size());
    std::memcpy(block + names_at, names_.c_str(), names_.size() + 1);
    return record;
  }

 private:
  bool ReadParameter(ByteReader& in, std::string_view name, char tag) {
    std::uint64_t value = 0;
    std::string_view text;
    switch (tag) {
      case 'N':
        if (!in.GetNumber(value)) return false;
        if (name == kLineName) {
          line_ = static_cast<std::uint32_t>(value);
          return true;
        }
        break;
      case 'A':
        if (!in.GetText(text)) return false;
        if (name == kFileName || name == kFunctionName) {
          (name == kFileName ? file_ : function_) = text;
          return true;
        }
        value = ansi_.size();
        ansi_.append(text).push_back('\0');
        break;
      case 'W':
        if (!in.GetText(text)) return false;
        value = wide_.size();
        AddWide(text);
        break;
      default:
        return false;
    }
    if (!names_.empty()) names_.push_back(',');
    parameters_.push_back({value, static_cast<std::uint32_t>(names_.size()),
                           static_cast<std::uint32_t>(name.size()),
                           static_cast<std::uint32_t>(parameters_.size()), tag});
    names_.append(name);
    return true;
  }

  // False if the text isn't clean UTF-8; it is kept all the same.
  bool AddWide(std::string_view text) {
    const bool clean = ToUtf16(decoded_, text.data(), text.size());
    wide_.append(decoded_).push_back(u'\0');
    return clean;
  }

  // A text that was not there has no address.
  static const char* Pool(std::string_view text) {
    return text.data() != nullptr ? GetPooledText(text) : nullptr;
  }

  std::uint32_t code_ = 0;
  std::uint64_t location_ = 0;
  std::string_view file_;
  std::string_view function_;
  std::uint32_t line_ = 0;
  String wide_;       // the message, then the values with tag "W", each with its terminator
  std::string ansi_;  // the values with tag "A"
  std::string names_;
  std::vector<LoadedParameter> parameters_;
  String decoded_;
};

// Whether the parameters take no more than `size` bytes or units when written or printed, roughly.
bool FitIn(const ErrorRecord& record, std::size_t size) {
  const ErrorRecordOperations& operations = *record.operations;
  ParameterNames names(record);
  for (std::string name; names.Next(name);) {
    // Of two texts of one name the 8-bit one is written, the other one printed.
    const char* ansi = operations.GetAnsi(&record, name.c_str());
    const char16_t* wide = operations.GetWide(&record, name.c_str());
    const std::size_t needed =
        name.size() + std::max(ansi != nullptr ? std::strlen(ansi) : 0,
                               wide != nullptr ? std::char_traits<char16_t>::length(wide) : 0);
    if (needed > size) return false;
    size -= needed;
  }
  return true;
}

}  // namespace

std::unique_ptr<unsigned char[]> Error::Save(unsigned int& size) const {
  ByteWriter out;
  out.PutByte(kVersion);
  for (const ErrorRecord* record = record_; record != nullptr; record = record->next) {
    WriteRecord(out, *record);
  }
  size = out.GetSize();
  return out.Take();
}

Error Error::Load(const unsigned char* data, unsigned int size) {
  Error error;
  if (data == nullptr || size < 1 + kRecordHead || data[0] != kVersion) return error;
  ErrorRecord** tail = &error.record_;
  try {
    ByteReader in(data + 1, size - 1);
    RecordLoader loader;
    for (;;) {
      const std::size_t left = in.GetLeft();
      if (left < kRecordHead || !loader.Read(in)) break;
      ErrorRecord* record = loader.Make();
      if (record == nullptr) throw std::bad_alloc();
      *tail = record;
      if (!FitIn(*record, left - in.GetLeft() + kMaxRepetition)) {
        ReleaseChain(std::exchange(*tail, nullptr));
        break;
      }
      tail = &record->next;
    }
  } catch (const std::bad_alloc&) {
    *tail = AddReference(OutOfMemoryRecord());
  }
  return error;
}

}  // namespace Common
