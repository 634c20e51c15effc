#include "core/xml/binary.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "core/common/text.h"
#include "core/common/unix/safe_assert.h"

namespace Core {

namespace {

constexpr char kPath[] = "core/xml/binary";

constexpr unsigned char kOldForm = 1;
constexpr unsigned char kNewForm = 2;

// What a count is believed for before the bytes are there.
constexpr std::uint32_t kPiece = 65536;

}  // namespace

unsigned char xml_reader_core::ReadByte() {
  unsigned char byte = 0;
  Read(File, &byte, 1);
  return byte;
}

std::uint32_t xml_reader_core::ReadNumber() {
  std::uint32_t number = 0;
  for (std::uint32_t shift = 0;; shift += 7) {
    const unsigned char byte = ReadByte();
    number |= (byte & 0x7Fu) << (shift & 31);
    if ((byte & 0x80) == 0 || File.HasFailed()) return number;
  }
}

const std::string& xml_reader_core::ReadBytes(std::uint32_t count) {
  bytes_.clear();
  while (count != 0 && !File.HasFailed()) {
    const std::uint32_t piece = std::min(count, kPiece);
    const std::size_t size = bytes_.size();
    bytes_.resize(size + piece);
    Read(File, bytes_.data() + size, piece);
    count -= piece;
  }
  return bytes_;
}

const Common::String& xml_reader_core::ReadText(std::uint32_t count) {
  const std::string& bytes = ReadBytes(count);
  Common::ToUtf16(text_, bytes.data(), bytes.size());
  return text_;
}

const std::string* xml_reader_core::ReadName(bool stop_at_zero) {
  const std::uint32_t id = ReadNumber();
  if (id == 0 && stop_at_zero) return nullptr;
  const auto place = Names.lower_bound(id);
  if (place != Names.end() && place->first == id) return &place->second;
  return &Names.emplace_hint(place, id, ReadBytes(ReadNumber()))->second;
}

bool xml_reader_binary_old::ReadTag() {
  bool result = OpenElement();
  while (result && !left_.empty()) {
    if (left_.back() == 0) {
      Receiver.CloseTag();
      left_.pop_back();
      // What closed was a child: the text behind it is next.
      if (!left_.empty()) Receiver.Text(ReadText(ReadNumber()));
    } else {
      --left_.back();
      result = OpenElement();
    }
    result = result && !File.HasFailed();
  }
  for (; !left_.empty(); left_.pop_back()) Receiver.CloseTag();
  return result;
}

bool xml_reader_binary_old::OpenElement() {
  const std::string* const tag = ReadName(false);
  Receiver.OpenTag(*tag);
  left_.push_back(0);
  for (unsigned int count = ReadByte(); count != 0 && !File.HasFailed(); --count) {
    const std::string* const name = ReadName(false);
    Receiver.Attribute(*name, ReadText(ReadNumber()));
  }
  const std::uint32_t count = ReadNumber();
  if (File.HasFailed()) return false;
  if (count == 0) {
    Common::SafeAssert("textCount", kPath, 135);
    return false;
  }
  left_.back() = count - 1;
  Receiver.Text(ReadText(ReadNumber()));
  return !File.HasFailed();
}

bool xml_reader_binary_new::ReadTag() {
  if (!OpenElement()) return false;
  for (std::size_t depth = 1; depth != 0;) {
    // Once the file has failed, what is open is closed.
    if (!File.HasFailed()) {
      ReadPiece();
      if (OpenElement()) {
        ++depth;
        continue;
      }
    }
    Receiver.CloseTag();
    --depth;
  }
  return !File.HasFailed();
}

bool xml_reader_binary_new::OpenElement() {
  const std::string* const tag = ReadName(true);
  if (tag == nullptr) return false;
  Receiver.OpenTag(*tag);
  while (!File.HasFailed()) {
    const std::string* const name = ReadName(true);
    if (name == nullptr) break;
    const std::uint32_t length = ReadNumber();
    if ((length & 1) != 0 && !std::exchange(asserted_length_, true)) {
      Common::SafeAssert("(textLength & 1) == 0", kPath, 194);
    }
    Receiver.Attribute(*name, ReadText(length / 2));
  }
  return true;
}

void xml_reader_binary_new::ReadPiece() {
  const std::uint32_t length = ReadNumber();
  if ((length & 1) == 0) {
    Receiver.Text(ReadText(length / 2));
  } else {
    Receiver.RawText(ReadBytes(length / 2));
  }
}

void binary_reader::Begin() {
  builder_.Reset();
  names_.clear();
}

void binary_reader::End() {
  if (builder_.GetCurrent() != nullptr) Common::SafeAssert("!tagStack.size()", kPath, 296);
}

XmlDetail::NameRecord* binary_reader::Intern(const std::string& name) {
  XmlDetail::NameRecord*& record = names_[&name];
  if (record == nullptr) record = builder_.Intern(name);
  return record;
}

void binary_reader::OpenTag(const std::string& name) {
  if (builder_.GetCurrent() != nullptr) {
    builder_.FinishAttributes();
  } else if (builder_.HasRoot()) {
    Begin();
  }
  builder_.OpenTag(Intern(name));
}

void binary_reader::CloseTag() {
  if (builder_.GetCurrent() == nullptr) {
    Common::SafeAssert("tagStack.size()", kPath, 309);
    return;
  }
  builder_.FinishAttributes();
  builder_.CloseTag();
}

void binary_reader::Attribute(const std::string& name, const Common::String& value) {
  if (builder_.GetCurrent() == nullptr) {
    Common::SafeAssert("tagStack.size()", kPath, 315);
    return;
  }
  if (builder_.AddAttribute(Intern(name))) builder_.SetValue(value);
}

void binary_reader::Text(const Common::String& text) {
  if (builder_.GetCurrent() == nullptr) {
    Common::SafeAssert("tagStack.size()", kPath, 321);
    return;
  }
  builder_.FinishAttributes();
  builder_.SetText(text);
}

bool ReadBinaryDocument(i_file& file, xml_reader_interface& receiver) {
  unsigned char head[2] = {};
  Read(file, &head[0], 1);
  Read(file, &head[1], 1);
  std::unique_ptr<xml_reader_core> reader;
  switch (head[0]) {
    case kOldForm:
      reader = std::make_unique<xml_reader_binary_old>(file, receiver);
      break;
    case kNewForm:
      reader = std::make_unique<xml_reader_binary_new>(file, receiver);
      break;
    default:
      return false;
  }
  receiver.Begin();
  const bool has_root = reader->ReadTag();
  receiver.End();
  return (has_root || head[0] == kNewForm) && !file.HasFailed();
}

}  // namespace Core
