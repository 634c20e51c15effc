#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "core/xml/xml_tag.h"

namespace Core::XmlDetail {

// Builds the tree of a document, in document order, in the document's memory. Nothing of it
// recurses and nothing is freed one by one. The document may be read or dropped at any time between
// two calls and outlives the builder. Every operation may throw std::bad_alloc.
//
// Text is written where it will stay: one text is open at a time, and nothing else is taken from
// the memory meanwhile.
class TreeBuilder : public Common::NonCopyable {
 public:
  // Where the next unit goes, and how far there is room.
  struct TextPlace {
    char16_t* to;
    char16_t* limit;

    std::size_t GetRoom() const { return static_cast<std::size_t>(limit - to); }
  };

  // Ends the document's former tree.
  explicit TreeBuilder(XmlDocument& document) : document_(document) { document.Clear(); }

  // Begins anew.
  void Reset();

  // The name's record, the same one for the same name.
  NameRecord* Intern(std::string_view name);

  bool HasRoot() const { return document_.root_ != nullptr; }
  // The innermost open tag, null for none.
  const XmlTag* GetCurrent() const { return current_; }
  // A further child of the current tag, without one the root; it is open then.
  void OpenTag(const NameRecord* name);
  void CloseTag();

  // An attribute of the current tag; nothing was added if it has one of that name. The next text is
  // its value. To be followed by FinishAttributes, before anything but attributes.
  bool AddAttribute(NameRecord* name);
  void FinishAttributes();

  // The current tag's text behind what it has so far, or the value of the attribute. Open until
  // the next call that isn't one of these. A place is good until the next of these calls.
  TextPlace OpenText();
  // The same text with room for `room` units and more.
  TextPlace GrowText(const TextPlace& place, std::size_t room);
  // Tells how far the place was written to.
  void KeepText(const TextPlace& place) { text_end_ = place.to; }
  // Ends a text that is open and hands it to the current tag; one without units is no text.
  void CloseText();
  // The same for the attribute that was added last. What it returns is good until it is finished.
  std::u16string_view CloseValue();
  // A whole text or value, in place of CloseText and CloseValue.
  void SetText(const Common::String& text);
  void SetValue(const Common::String& value);

 private:
  static constexpr std::size_t kNameCacheSize = 256;

  char* Allocate(std::size_t size) {
    size = (size + 7) & ~std::size_t{7};
    if (size > static_cast<std::size_t>(end_ - at_)) AddChunk(size);
    char* const memory = at_;
    at_ += size;
    return memory;
  }
  void AddChunk(std::size_t size);
  TextRecord* TakeText();

  XmlDocument& document_;
  char* at_ = nullptr;  // aligned to 8
  char* end_ = nullptr;
  XmlTag* current_ = nullptr;
  XmlTag* last_ = nullptr;        // the last child of the current tag
  char16_t* text_end_ = nullptr;  // of the text that is open, its record stands at at_; null: none
  std::vector<XmlAttribute> attributes_;
  std::map<std::string_view, NameRecord*> names_;
  std::array<NameRecord*, kNameCacheSize> name_cache_{};
};

}  // namespace Core::XmlDetail
