#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "core/include/file/file.h"
#include "core/xml/tree_builder.h"

// The two binary forms of a document. Behind the magic "BXML" come a byte that tells the form, 1 or
// 2, a byte without a meaning, and the root element.
//
//   number    7 bits a byte, lowest first; a set top bit: another byte follows. Beyond five bytes
//             the bits wrap around and overlay the low ones. Any length.
//   name      number, the id; where the id is new, also number, the size, and that many bytes. So a
//             name is spelled out where it comes first.
//   text      number, the count, and that many bytes of UTF-8, which need not be valid
//
//   form 1    name; one byte, the count of attributes; as many times name, text;
//             number, the count of texts, from 1; text; for each further text an element and the
//             text
//   form 2    name, or id 0 for no element; attributes as long as their id isn't 0, each name and
//             text with a count of twice the bytes; then pieces and elements by turns until there
//             is no element. A piece is a number and half as many bytes: UTF-8 if the number is
//             even, 8-bit text if it is odd.
//
// A text ends at its first zero byte. An odd count of an attribute's text in form 2 is asserted,
// the first one of a document, and rounded down.
//
// A file that ends too early gets the failure 0x40002; what is being read asks on in vain, and no
// further element is.

namespace Core {

// Gets a document. A name lies at the same address, unchanged, wherever the document refers to it,
// until End.
class xml_reader_interface : public Common::NonCopyable {
 public:
  virtual ~xml_reader_interface() = default;
  virtual void Begin() {}
  virtual void End() {}
  virtual void OpenTag(const std::string& /*name*/) {}
  // Closes the innermost open tag.
  virtual void CloseTag() {}
  // Of the innermost open tag, as are the texts, and before all of them.
  virtual void Attribute(const std::string& /*name*/, const Common::String& /*value*/) {}
  virtual void Text(const Common::String& /*text*/) {}
  // 8-bit text, in place of a Text.
  virtual void RawText(const std::string& /*text*/) {}
};

// Builds the tree of a document; its 8-bit texts are dropped. What is called while no tag is open
// is asserted and does nothing.
class binary_reader final : public xml_reader_interface {
 public:
  explicit binary_reader(XmlDetail::TreeBuilder& builder) : builder_(builder) {}

  void Begin() override;
  void End() override;
  // While no tag is open: a root in place of a former one.
  void OpenTag(const std::string& name) override;
  void CloseTag() override;
  // The first value of a name stays.
  void Attribute(const std::string& name, const Common::String& value) override;
  void Text(const Common::String& text) override;

 private:
  XmlDetail::NameRecord* Intern(const std::string& name);

  XmlDetail::TreeBuilder& builder_;
  // A name is compared where it is spelled out and told from others by its address from then on: a
  // document may refer to a long one very often.
  std::unordered_map<const std::string*, XmlDetail::NameRecord*> names_;
};

// Decodes an element and tells a receiver. Documents may be as deep as they are long.
class xml_reader_core : public Common::NonCopyable {
 public:
  xml_reader_core(i_file& file, xml_reader_interface& receiver) : File(file), Receiver(receiver) {}
  virtual ~xml_reader_core() = default;
  // False: there was no element, or the file has failed, or the document is none. Every tag that
  // was opened is closed.
  virtual bool ReadTag() = 0;

 protected:
  unsigned char ReadByte();
  std::uint32_t ReadNumber();
  // Null: id 0, and `stop_at_zero`.
  const std::string* ReadName(bool stop_at_zero);
  // Good until the next of these.
  const std::string& ReadBytes(std::uint32_t count);
  const Common::String& ReadText(std::uint32_t count);

  i_file& File;
  xml_reader_interface& Receiver;
  std::map<std::uint32_t, std::string> Names;

 private:
  std::string bytes_;
  Common::String text_;
};

class xml_reader_binary_old final : public xml_reader_core {
 public:
  using xml_reader_core::xml_reader_core;
  bool ReadTag() override;

 private:
  // Up to the first text. False: the element can't be read; its tag is open.
  bool OpenElement();

  // Of every open tag, how many children and texts are still to come.
  std::vector<std::uint32_t> left_;
};

class xml_reader_binary_new final : public xml_reader_core {
 public:
  using xml_reader_core::xml_reader_core;
  bool ReadTag() override;

 private:
  // Up to the first piece. False: there is no element.
  bool OpenElement();
  void ReadPiece();

  bool asserted_length_ = false;
};

// Reads what follows the magic. True when the document was read and the file has not failed; a
// document of form 2 without an element is one.
bool ReadBinaryDocument(i_file& file, xml_reader_interface& receiver);

}  // namespace Core
