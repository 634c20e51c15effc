// Binary XML, behind the magic: memory is asked for in bounded pieces, an accepted document leaves
// its file sound, and an accepted tree, written in either form, is read into the same tree.

#include <map>
#include <string>
#include <string_view>

#include "core/common/text.h"
#include "fuzz/fuzz_target.h"
#include "tests/core/xml/tree_text.h"

using TestSupport::PieceFile;
using TestSupport::ReadResult;
using TestSupport::ReadXml;

namespace {

// Writes a tree in form 1 or 2.
class BinaryWriter {
 public:
  explicit BinaryWriter(bool is_new) : new_(is_new) {}

  std::string Write(const Core::XmlTag* root) {
    out_.assign(new_ ? "BXML\2x" : "BXML\1x");
    const Core::XmlTag* tag = root;
    while (tag != nullptr) {
      Open(*tag);
      if (tag->GetFirstChild() != nullptr) {
        tag = tag->GetFirstChild();
        continue;
      }
      for (; tag != nullptr; tag = tag->GetParent()) {
        if (new_) PutNumber(0);
        if (tag != root) PutText(tag->GetTextBehind());
        if (tag->GetNext() != nullptr) break;
      }
      if (tag != nullptr) tag = tag->GetNext();
    }
    return std::move(out_);
  }

 private:
  void Open(const Core::XmlTag& tag) {
    PutName(tag.GetName());
    if (!new_) out_ += static_cast<char>(tag.GetAttributes().count);
    for (const Core::XmlAttribute& attribute : tag.GetAttributes()) {
      PutName(attribute.GetName());
      PutText(attribute.GetValue());
    }
    if (new_) {
      PutNumber(0);
    } else {
      std::uint32_t texts = 1;
      for ([[maybe_unused]] const Core::XmlTag& child : tag.GetChildren()) ++texts;
      PutNumber(texts);
    }
    PutText(tag.GetText());
  }

  void PutNumber(std::uint32_t number) {
    for (; number > 0x7F; number >>= 7) out_ += static_cast<char>(0x80 | (number & 0x7F));
    out_ += static_cast<char>(number);
  }
  void PutName(std::string_view name) {
    const auto id = static_cast<std::uint32_t>(names_.size() + 1);
    const auto [place, is_new] = names_.emplace(name, id);
    PutNumber(place->second);
    if (!is_new) return;
    PutNumber(static_cast<std::uint32_t>(name.size()));
    out_.append(name);
  }
  void PutText(std::u16string_view text) {
    std::string bytes;
    std::string run;
    for (;;) {
      Common::ToUtf8(run, text.data(), text.size());
      bytes += run;
      const std::size_t zero = text.find(u'\0');
      if (zero == text.npos) break;
      // Written in one byte it would end the text.
      bytes.append("\xC0\x80");
      text.remove_prefix(zero + 1);
    }
    PutNumber(static_cast<std::uint32_t>(bytes.size()) * (new_ ? 2 : 1));
    out_ += bytes;
  }

  const bool new_;
  std::map<std::string_view, std::uint32_t> names_;
  std::string out_;
};

bool FitsOldForm(const Core::XmlTag* root) {
  for (const Core::XmlTag* tag = root; tag != nullptr;) {
    if (tag->GetAttributes().count > 255) return false;
    if (tag->GetFirstChild() != nullptr) {
      tag = tag->GetFirstChild();
      continue;
    }
    while (tag != nullptr && tag->GetNext() == nullptr) tag = tag->GetParent();
    if (tag != nullptr) tag = tag->GetNext();
  }
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string bytes = "BXML";
  bytes.append(reinterpret_cast<const char*>(data), size);
  PieceFile file(bytes, bytes.size());
  Core::XmlDocument document;
  unsigned int line = 0;
  unsigned int column = 0;
  const bool good = Core::ReadDocument(document, file, line, column);
  Fuzz::Require(line == 1 && column == 1, "the place of a binary document");
  Fuzz::Require(file.GetLargest() <= 65536, "a length isn't believed");
  Fuzz::Require(!good || !file.HasFailed(), "an accepted document leaves its file sound");
  if (!good || document.GetRoot() == nullptr) return 0;
  const std::string tree = TestSupport::TreeWriter::Write(document.GetRoot());
  for (const bool is_new : {true, false}) {
    if (!is_new && !FitsOldForm(document.GetRoot())) continue;
    const ReadResult again = ReadXml(BinaryWriter(is_new).Write(document.GetRoot()));
    Fuzz::RequireEqual(again.ToString(), tree, "a written tree comes back");
  }
  return 0;
}
