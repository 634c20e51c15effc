#include "enterprise/serialize/xml_serializer.h"

#include <locale.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "core/common/trace.h"
#include "core/common/unix/safe_assert.h"
#include "core/file/memory_file.h"
#include "core/xml/simple_reader.h"
#include "core/xml/xml_tag.h"
#include "enterprise/serialize/base64.h"
#include "enterprise/serialize/output_buffer.h"
#include "enterprise/serialize/xml_text.h"

namespace Serialization {

namespace {

constexpr Common::SourceFile kSource{"enterprise/serialize/xml_serializer"};

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kRootBegin = "<XML_SERIALIZER>";
constexpr std::string_view kRootEnd = "</XML_SERIALIZER>";
constexpr std::string_view kVersionName = "version";
constexpr std::size_t kMostForNumber = 32;

class XMLPacketSerializer final : public Serializer {
 public:
  explicit XMLPacketSerializer(unsigned int category) : category_(category) {
    buffer_.Append(kByteOrderMark);
    buffer_.Append(kRootBegin);
  }

  void Write(const MetaInfo& meta, bool value) override {
    WriteValue(meta, [&] { buffer_.Append(value ? "1" : "0"); });
  }
  void Write(const MetaInfo& meta, unsigned char value) override {
    WriteNumber(meta, static_cast<unsigned int>(value));
  }
  void Write(const MetaInfo& meta, const Common::Guid& value) override {
    WriteValue(meta, [&] {
      constexpr std::size_t kSize = 36;
      char* const to = buffer_.Reserve(kSize + 1);
      Common::GuidToChars(to, value);
      buffer_.SetEnd(to + kSize);
    });
  }
  void Write(const MetaInfo& meta, const Common::Error& value) override {
    if (IsOfOtherCategory(meta)) return;
    unsigned int size = 0;
    std::unique_ptr<unsigned char[]> bytes;
    TakeRoom([&] { bytes = value.Save(size); });
    WriteValue(meta, [&] { AppendBase64(buffer_, bytes.get(), size); });
  }
  void Write(const MetaInfo& meta, const Common::String& value) override {
    WriteValue(meta, [&] { AppendXmlText(buffer_, std::u16string_view(value)); });
  }
  void Write(const MetaInfo& meta, unsigned int value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, double value) override {
    WriteNumber(meta, value, std::chars_format::general, 16);
  }
  void Write(const MetaInfo& meta, unsigned long long value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, int value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, long long value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, const std::string& value) override {
    WriteValue(meta, [&] { AppendXmlText(buffer_, std::string_view(value)); });
  }
  void Write(const MetaInfo& meta, short value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, unsigned short value) override { WriteNumber(meta, value); }
  void Write(const MetaInfo& meta, const std::vector<unsigned char>& value) override {
    WriteValue(meta, [&] { AppendBase64(buffer_, value.data(), value.size()); });
  }
  void Write(const MetaInfo& meta, const CountedBytes& value) override {
    WriteValue(meta, [&] {
      if (value.data != nullptr) AppendBase64(buffer_, value.data.get(), value.size);
    });
  }

  void Finish(std::vector<unsigned char>& bytes) override {
    const CountedBytes packet = Finish();
    bytes.assign(packet.data.get(), packet.data.get() + packet.size);
  }
  CountedBytes Finish() override {
    if (buffer_.HasFailed()) throw std::bad_alloc();
    buffer_.Append(kRootEnd);
    open_.clear();
    CountedBytes packet;
    packet.size = buffer_.GetSize();
    packet.data.reset(reinterpret_cast<unsigned char*>(buffer_.Release()),
                      [](unsigned char* block) { std::free(block); });
    return packet;
  }

  MetaInfo GetCurrentMetaInfo() override {
    return MetaInfo(open_.empty() ? std::string() : std::string(GetName(open_.back())));
  }
  void BeginElement(const MetaInfo& meta) override {
    if (meta.name.empty()) return;
    if (IsOfOtherCategory(meta)) {
      OpenTag outer = open_.empty() ? OpenTag() : open_.back();
      outer.is_skipped = true;
      TakeRoom([&] { open_.push_back(outer); });
      return;
    }
    // Ahead of the tag, so that no tag stands there whose element isn't known as open.
    TakeRoom([&] { open_.push_back({buffer_.GetSize() + 1, meta.name.size(), false}); });
    try {
      WriteStartTag(meta);
    } catch (const std::bad_alloc&) {
      open_.pop_back();
      throw;
    }
  }
  void EndElement(const MetaInfo& meta) override {
    if (meta.name.empty()) return;
    if (open_.empty()) {
      SAFE_ASSERT_NOT_REACHED("XMLPacketSerializer: No open element.");
      return;
    }
    const OpenTag tag = open_.back();
    open_.pop_back();
    if (tag.is_skipped) return;
    WriteEndTag(meta);
  }

  void SetSubjectVersion(unsigned long long version) override { subject_version_ = version; }
  unsigned long long GetSubjectVersion() override { return subject_version_; }

 private:
  // An element that is open. Its name is the one in its start tag. One that is skipped has the name
  // of the innermost element around it that isn't.
  struct OpenTag {
    std::size_t name_at = 0;
    std::size_t name_size = 0;
    bool is_skipped = false;
  };

  // Runs what takes room outside the buffer; the packet has failed where there is none.
  template <class Take>
  void TakeRoom(Take&& take) {
    try {
      take();
    } catch (const std::bad_alloc&) {
      buffer_.SetFailed();
      throw;
    }
  }

  std::string_view GetName(const OpenTag& tag) const {
    return {buffer_.GetData() + tag.name_at, tag.name_size};
  }

  bool IsOfOtherCategory(const MetaInfo& meta) const {
    return category_ != 0 && meta.category != 0 && meta.category != category_;
  }

  void WriteStartTag(const MetaInfo& meta) {
    char* to = buffer_.Reserve(meta.name.size() + kVersionName.size() + kMostForNumber + 8);
    *to++ = '<';
    to = OutputBuffer::Put(to, meta.name);
    if (meta.version != 0) {
      const bool has_own = category_ != 0 && meta.category == category_;
      *to++ = ' ';
      to = OutputBuffer::Put(to, kVersionName);
      to = OutputBuffer::Put(to, "=\"");
      to = std::to_chars(to, to + kMostForNumber, has_own ? meta.category_version : meta.version)
               .ptr;
      *to++ = '"';
    }
    *to++ = '>';
    buffer_.SetEnd(to);
  }

  void WriteEndTag(const MetaInfo& meta) {
    if (meta.traits != nullptr || meta.common_traits != nullptr) {
      buffer_.Append("<traits>");
      WriteTraits(meta.traits);
      WriteTraits(meta.common_traits);
      buffer_.Append("</traits>");
    }
    char* to = buffer_.Reserve(meta.name.size() + 3);
    to = OutputBuffer::Put(to, "</");
    to = OutputBuffer::Put(to, meta.name);
    *to++ = '>';
    buffer_.SetEnd(to);
  }

  void WriteTraits(const TraitList& traits) {
    if (traits == nullptr) return;
    for (const MetaInfoTrait& trait : *traits) {
      buffer_.Append("<trait  name=\"");
      buffer_.Append(trait.name);
      buffer_.Append("\" type=\"");
      buffer_.Append(trait.type);
      buffer_.Append("\">");
      AppendXmlText(buffer_, std::string_view(trait.value));
      buffer_.Append("</trait>");
    }
  }

  template <class AppendValue>
  void WriteValue(const MetaInfo& meta, AppendValue&& append_value) {
    if (IsOfOtherCategory(meta)) return;
    if (meta.name.empty()) {
      append_value();
      return;
    }
    WriteStartTag(meta);
    append_value();
    WriteEndTag(meta);
  }

  template <class T, class... Format>
  void WriteNumber(const MetaInfo& meta, T value, Format... format) {
    WriteValue(meta, [&] {
      char* const to = buffer_.Reserve(kMostForNumber);
      buffer_.SetEnd(std::to_chars(to, to + kMostForNumber, value, format...).ptr);
    });
  }

  OutputBuffer buffer_;
  std::vector<OpenTag> open_;
  const unsigned int category_;
  unsigned long long subject_version_ = 0;
};

Common::Error MakeInconsistentError(const Common::LineTag& tag) {
  return Common::Error(kInconsistentCode,
                       Common::GetMessageText(Common::MessageRow::SerializationInconsistent), tag);
}

Common::Error MakeNoMetaInfoError(const Common::LineTag& tag) {
  return Common::Error(kNoMetaInfoCode,
                       Common::GetMessageText(Common::MessageRow::SerializationNoMetaInfo), tag);
}

Common::Error MakeNoDataError(const Common::LineTag& tag) {
  return Common::Error(kNoDataCode, "SERIALIZER_ERROR_NO_DATA", tag);
}

// The low byte of each unit.
std::string Narrow(std::u16string_view text) {
  std::string result(text.size(), '\0');
  for (std::size_t i = 0; i < text.size(); ++i) result[i] = static_cast<char>(text[i]);
  return result;
}

// The number at the front as sscanf reads it, 0 if there is none. Whatever the locale of the
// process is, packets have a full stop.
double ParseDouble(const std::string& text) {
  static const locale_t plain = ::newlocale(LC_ALL_MASK, "C", nullptr);
  const locale_t former = ::uselocale(plain);
  double value = 0;
  if (std::sscanf(text.c_str(), "%lf", &value) != 1) value = 0;
  ::uselocale(former);
  return value;
}

class XMLPacketDeserializer final : public Deserializer {
 public:
  XMLPacketDeserializer(const unsigned char* data, std::size_t size, unsigned long long version) {
    Core::buf_ifile<char> file(reinterpret_cast<const char*>(data), size);
    unsigned int line = 0;
    unsigned int column = 0;
    const bool result = Core::ReadDocument(document_, file, line, column);
    SAFE_ASSERT(result && "Cannot read xml document from string.");
    if (!result) {
      document_.Clear();
      return;
    }
    const Core::XmlTag* const root = document_.GetRoot();
    if (root == nullptr) {
      Common::SafeAssert("RootTag", __FILE__, __LINE__);
      return;
    }
    ranges_.emplace_back(*root);
    versions_.push_back(version);
    current_tag_ = root;
  }

  void Read(const MetaInfo& meta, bool& value) override {
    ReadValue(meta, [&](std::u16string_view text) { value = ParseUnsigned(text) != 0; });
  }
  void Read(const MetaInfo& meta, unsigned char& value) override { ReadUnsigned(meta, value); }
  void Read(const MetaInfo& meta, Common::Guid& value) override {
    ReadValue(meta, [&](std::u16string_view text) {
      Common::GuidFromString(value, Narrow(text).c_str());
    });
  }
  void Read(const MetaInfo& meta, Common::Error& value) override {
    ReadValue(meta, [&](std::u16string_view text) {
      CountedBytes bytes;
      Decode(text, bytes);
      if (bytes.size > std::numeric_limits<unsigned int>::max()) {
        throw MakeNoDataError(kSource.At("Read", 140));
      }
      value = Common::Error::Load(bytes.data.get(), static_cast<unsigned int>(bytes.size));
    });
  }
  void Read(const MetaInfo& meta, Common::String& value) override {
    ReadValue(meta, [&](std::u16string_view text) { value = text; });
  }
  void Read(const MetaInfo& meta, unsigned int& value) override { ReadUnsigned(meta, value); }
  void Read(const MetaInfo& meta, double& value) override {
    ReadValue(meta, [&](std::u16string_view text) { value = ParseDouble(Narrow(text)); });
  }
  void Read(const MetaInfo& meta, unsigned long long& value) override { ReadUnsigned(meta, value); }
  void Read(const MetaInfo& meta, int& value) override { ReadSigned(meta, value); }
  void Read(const MetaInfo& meta, long long& value) override { ReadSigned(meta, value); }
  void Read(const MetaInfo& meta, std::string& value) override {
    ReadValue(meta, [&](std::u16string_view text) {
      value = Narrow(text);
      value.resize(std::string_view(value.c_str()).size());
    });
  }
  void Read(const MetaInfo& meta, short& value) override { ReadSigned(meta, value); }
  void Read(const MetaInfo& meta, unsigned short& value) override { ReadUnsigned(meta, value); }
  void Read(const MetaInfo& meta, std::vector<unsigned char>& value) override {
    ReadValue(meta, [&](std::u16string_view text) { Decode(text, value); });
  }
  void Read(const MetaInfo& meta, CountedBytes& value) override {
    ReadValue(meta, [&](std::u16string_view text) { Decode(text, value); });
  }

  MetaInfo PeekMetaInfo() override {
    const Core::XmlTag* const next = ranges_.empty() ? nullptr : ranges_.back().next;
    return MetaInfo(next != nullptr ? std::string(next->GetName()) : std::string());
  }

  void BeginElement(const MetaInfo& meta) override {
    if (meta.name.empty()) return;
    const Core::XmlTag& tag = FindChild(meta);
    versions_.push_back(FindVersion(tag));
    ranges_.emplace_back(tag);
    current_tag_ = &tag;
  }

  void EndElement(const MetaInfo& meta) override {
    if (meta.name.empty()) return;
    if (current_tag_ == nullptr) {
      SAFE_ASSERT_NOT_REACHED("XMLPacketDeserializer: No tags.");
      throw MakeNoMetaInfoError(kSource.At("EndElement", 10));
    }
    if (meta.name != current_tag_->GetName() || meta.traits != nullptr ||
        meta.common_traits != nullptr) {
      SAFE_ASSERT_NOT_REACHED("XMLPacketDeserializer: Inconsistent meta.");
      throw MakeInconsistentError(kSource.At("EndElement", 20));
    }
    current_tag_ = current_tag_->GetParent();
    if (ranges_.empty()) {
      SAFE_ASSERT_NOT_REACHED("XMLPacketDeserializer: Stack is empty somehow.");
      throw MakeInconsistentError(kSource.At("EndElement", 30));
    }
    ranges_.pop_back();
    if (current_tag_ == nullptr) {
      Common::SafeAssert("CurrentTag", __FILE__, __LINE__);
      throw MakeInconsistentError(kSource.At("EndElement", 40));
    }
    if (versions_.empty()) throw MakeInconsistentError(kSource.At("EndElement", 50));
    versions_.pop_back();
  }

  unsigned long long GetSubjectVersion() override {
    if (versions_.empty()) throw MakeInconsistentError(kSource.At("GetSubjectVersion", 60));
    return versions_.back();
  }

  bool IsAtEnd() override { return !ranges_.empty() && ranges_.back().next == nullptr; }

 private:
  // The children of a tag and the one that is expected next.
  struct Range {
    explicit Range(const Core::XmlTag& tag)
        : begin(tag.GetFirstChild()), next(tag.GetFirstChild()) {}

    const Core::XmlTag* begin;
    const Core::XmlTag* next;  // null: all were passed
  };

  const Core::XmlTag& FindChild(const MetaInfo& meta) {
    if (ranges_.empty()) {
      SAFE_ASSERT_NOT_REACHED("XMLPacketDeserializer: No meta.");
      throw MakeNoMetaInfoError(kSource.At("FindChild", 70));
    }
    Range& range = ranges_.back();
    if (range.next == nullptr) throw MakeInconsistentError(kSource.At("FindChild", 80));
    const Core::XmlTag* tag = range.next;
    range.next = tag->GetNext();
    if (tag->GetName() == meta.name) return *tag;
    if (meta.strict) throw MakeInconsistentError(kSource.At("FindChild", 90));
    for (tag = range.begin; tag != nullptr; tag = tag->GetNext()) {
      if (tag->GetName() == meta.name) return *tag;
    }
    throw MakeInconsistentError(kSource.At("FindChild", 100));
  }

  // The version in force inside a tag.
  unsigned long long FindVersion(const Core::XmlTag& tag) const {
    if (versions_.empty()) throw MakeInconsistentError(kSource.At("FindVersion", 110));
    std::uint64_t version = 0;
    const Core::XmlAttribute* const attribute = tag.FindAttribute(kVersionName);
    if (attribute == nullptr ||
        !Common::ParseNumber(&version, Common::String(attribute->GetValue()).c_str(), 10) ||
        version == 0) {
      return versions_.back();
    }
    return version;
  }

  // Reads the text of an element; leaves the element also when `convert` throws.
  template <class Convert>
  void ReadValue(const MetaInfo& meta, Convert&& convert) {
    // Behind the root there is nothing to read. A bad packet is for BeginElement to report, but
    // for a value without a name.
    const bool is_left = current_tag_ == nullptr && document_.GetRoot() != nullptr;
    if (!is_left) BeginElement(meta);
    if (current_tag_ == nullptr) throw MakeNoDataError(kSource.At("Read", 120));
    try {
      convert(current_tag_->GetText());
    } catch (...) {
      LeaveAfterFailure(meta);
      throw;
    }
    EndElement(meta);
  }

  // The failure that is on its way counts.
  void LeaveAfterFailure(const MetaInfo& meta) noexcept {
    try {
      EndElement(meta);
    } catch (const Common::Error& error) {
      Common::Trace(Common::kTraceError, error);
    }
  }

  static unsigned long long ParseUnsigned(std::u16string_view text) {
    return std::strtoull(Narrow(text).c_str(), nullptr, 10);
  }
  template <class T>
  void ReadUnsigned(const MetaInfo& meta, T& value) {
    ReadValue(meta, [&](std::u16string_view text) { value = static_cast<T>(ParseUnsigned(text)); });
  }
  template <class T>
  void ReadSigned(const MetaInfo& meta, T& value) {
    ReadValue(meta, [&](std::u16string_view text) {
      value = static_cast<T>(std::strtoll(Narrow(text).c_str(), nullptr, 10));
    });
  }
  template <class Bytes>
  static void Decode(std::u16string_view text, Bytes& bytes) {
    if (!ReadBase64(text, bytes)) throw MakeNoDataError(kSource.At("Read", 130));
  }

  Core::XmlDocument document_;
  const Core::XmlTag* current_tag_ = nullptr;  // null: the packet is bad, or its root was left
  std::vector<unsigned long long> versions_;
  std::vector<Range> ranges_;
};

}  // namespace

std::unique_ptr<Serializer> CreateXMLPacketSerializer(unsigned int category) {
  return std::make_unique<XMLPacketSerializer>(category);
}

std::unique_ptr<Deserializer> CreateXMLPacketDeserializer(const unsigned char* data,
                                                          std::size_t size,
                                                          unsigned long long version) {
  return std::make_unique<XMLPacketDeserializer>(data, size, version);
}

}  // namespace Serialization
