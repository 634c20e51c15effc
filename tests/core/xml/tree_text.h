#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "core/include/file/file.h"
#include "core/xml/simple_reader.h"

namespace TestSupport {

// Borrows the bytes. Gives at most `piece` bytes at a time, and fails at its end with `failure`, if
// that is one.
class PieceFile final : public Core::i_file {
 public:
  PieceFile(std::string_view bytes, std::size_t piece, Common::Error failure = {})
      : bytes_(bytes), piece_(piece), failure_(std::move(failure)) {}
  PieceFile(std::string&&, std::size_t, Common::Error = {}) = delete;  // borrowed

  void Read(void* buffer, std::uint64_t size, std::uint64_t& count) override {
    largest_ = std::max(largest_, size);
    count = HasFailed() ? 0 : bytes_.copy(static_cast<char*>(buffer), std::min(piece_, size));
    bytes_.remove_prefix(count);
    if (count == 0 && size != 0) Fail(failure_);
  }
  // The largest size that was asked for.
  std::uint64_t GetLargest() const { return largest_; }

 private:
  std::string_view bytes_;
  std::size_t piece_;
  Common::Error failure_;
  std::uint64_t largest_ = 0;
};

// A tree as XML in one form of all that say the same: what isn't ASCII and visible and all markup
// in text is a numeric reference, an empty element has two tags.
class TreeWriter {
 public:
  static std::string Write(const Core::XmlTag* root) {
    TreeWriter writer;
    if (root != nullptr) writer.WriteTree(root);
    return std::move(writer.out_);
  }

 private:
  void WriteTree(const Core::XmlTag* tag) {
    for (;;) {
      Open(*tag);
      if (tag->GetFirstChild() != nullptr) {
        tag = tag->GetFirstChild();
        continue;
      }
      for (;;) {
        out_.append("</").append(tag->GetName()).append(">");
        PutText(tag->GetTextBehind());
        if (tag->GetNext() != nullptr) break;
        tag = tag->GetParent();
        if (tag == nullptr) return;
      }
      tag = tag->GetNext();
    }
  }

  void Open(const Core::XmlTag& tag) {
    out_.append("<").append(tag.GetName());
    for (const Core::XmlAttribute& attribute : tag.GetAttributes()) {
      out_.append(" ").append(attribute.GetName()).append("=\"");
      PutText(attribute.GetValue());
      out_.append("\"");
    }
    out_.append(">");
    PutText(tag.GetText());
  }

  void PutText(std::u16string_view text) {
    for (const char16_t unit : text) {
      if (unit > u' ' && unit < 0x7F && unit != u'<' && unit != u'&' && unit != u'"') {
        out_.push_back(static_cast<char>(unit));
      } else {
        char reference[16];
        std::snprintf(reference, sizeof(reference), "&#%u;", static_cast<unsigned int>(unit));
        out_.append(reference);
      }
    }
  }

  std::string out_;
};

// What reading came to: the tree, or the place where it failed as "line:column".
struct ReadResult {
  bool good;
  unsigned int line;
  unsigned int column;
  std::string tree;  // also of a document that was refused

  std::string ToString() const {
    return good ? tree : std::to_string(line) + ":" + std::to_string(column);
  }
};

inline ReadResult ReadXml(Core::i_file& file) {
  Core::XmlDocument document;
  ReadResult result{};
  result.good = Core::ReadDocument(document, file, result.line, result.column);
  result.tree = TreeWriter::Write(document.GetRoot());
  return result;
}

inline ReadResult ReadXml(std::string_view bytes, std::size_t piece = std::string_view::npos) {
  PieceFile file(bytes, piece);
  return ReadXml(file);
}

}  // namespace TestSupport
