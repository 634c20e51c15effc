#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "core/common/non_copyable.h"

// The tree that a document is read into.
//
//   <a x="1">T0<b/>T1<c>..</c>T2</a>
//
// An element has a name, attributes, children in document order and one text more than children:
// its own text stands before the first child (T0), every further one behind a child (T1 behind b,
// T2 behind c) and is kept there.
//
// A tree lies in memory of its document and can't be changed. It is read by any number of threads;
// whatever comes out of it is borrowed from the document. Going through it and dropping it needs no
// recursion: an element knows its parent, its first child and the next child of its parent.

namespace Core {

namespace XmlDetail {

// Text as it lies in memory of the document: the units stand behind the record.
struct TextRecord {
  std::size_t size;

  const char16_t* GetUnits() const { return reinterpret_cast<const char16_t*>(this + 1); }
};

// A name, one record for all elements and attributes of a document that have it. The characters
// stand behind the record.
struct NameRecord {
  std::size_t size;
  const void* mark;  // for whoever builds the tree

  std::string_view Get() const { return {reinterpret_cast<const char*>(this + 1), size}; }
};

inline std::u16string_view GetText(const TextRecord* text) {
  return text == nullptr ? std::u16string_view()
                         : std::u16string_view(text->GetUnits(), text->size);
}

class TreeBuilder;
struct Chunk;

}  // namespace XmlDetail

class XmlAttribute {
 public:
  std::string_view GetName() const { return name_->Get(); }
  std::u16string_view GetValue() const { return XmlDetail::GetText(value_); }

 private:
  friend class XmlDetail::TreeBuilder;
  const XmlDetail::NameRecord* name_;
  const XmlDetail::TextRecord* value_;  // null: empty
};

class XmlTag : public Common::NonCopyable {
 public:
  // Forward iterator over the children of a tag; the end is a null child.
  class ChildIterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = const XmlTag;
    using difference_type = std::ptrdiff_t;
    using pointer = const XmlTag*;
    using reference = const XmlTag&;

    ChildIterator() = default;
    explicit ChildIterator(const XmlTag* child) : child_(child) {}
    reference operator*() const { return *child_; }
    pointer operator->() const { return child_; }
    ChildIterator& operator++() {
      child_ = child_->next_;
      return *this;
    }
    ChildIterator operator++(int) {
      const ChildIterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const ChildIterator&, const ChildIterator&) = default;

   private:
    const XmlTag* child_ = nullptr;
  };
  struct ChildRange {
    ChildIterator begin() const { return ChildIterator(first); }
    ChildIterator end() const { return ChildIterator(); }
    const XmlTag* first;
  };
  // In the order of the document. Not by name: a binary document spells a long name once and uses
  // it in many tags, and each order would compare it again.
  struct AttributeRange {
    const XmlAttribute* begin() const { return first; }
    const XmlAttribute* end() const { return first + count; }
    const XmlAttribute* first;
    std::size_t count;
  };

  std::string_view GetName() const { return name_->Get(); }
  // Null at the root.
  const XmlTag* GetParent() const { return parent_; }
  ChildRange GetChildren() const { return {first_child_}; }
  // Null: none.
  const XmlTag* GetFirstChild() const { return first_child_; }
  // The child of the parent behind this one, null: none.
  const XmlTag* GetNext() const { return next_; }
  // What stands before the first child.
  std::u16string_view GetText() const { return XmlDetail::GetText(text_); }
  // What stands behind this tag, up to the next one or the parent's end.
  std::u16string_view GetTextBehind() const { return XmlDetail::GetText(text_behind_); }

  AttributeRange GetAttributes() const;
  // Null: none of this name.
  const XmlAttribute* FindAttribute(std::string_view name) const;

 private:
  friend class XmlDetail::TreeBuilder;
  // The attributes stand behind the record.
  struct Attributes {
    std::size_t count;
  };

  XmlTag() = default;

  const XmlDetail::NameRecord* name_ = nullptr;
  XmlTag* parent_ = nullptr;
  XmlTag* first_child_ = nullptr;
  XmlTag* next_ = nullptr;
  const XmlDetail::TextRecord* text_ = nullptr;         // null: empty
  const XmlDetail::TextRecord* text_behind_ = nullptr;  // null: empty
  const Attributes* attributes_ = nullptr;              // null: none
};

// Owns a tree and the memory in which it lies. A plain movable value.
class XmlDocument {
 public:
  XmlDocument() noexcept = default;
  XmlDocument(XmlDocument&& other) noexcept;
  XmlDocument& operator=(XmlDocument&& other) noexcept;
  ~XmlDocument();

  // Null: none.
  const XmlTag* GetRoot() const noexcept { return root_; }
  // Ends the tree. Takes as long as its memory has pieces, not elements.
  void Clear() noexcept;

 private:
  friend class XmlDetail::TreeBuilder;
  XmlDetail::Chunk* chunks_ = nullptr;
  XmlTag* root_ = nullptr;
};

}  // namespace Core
