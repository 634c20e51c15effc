#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "core/common/string.h"

namespace Por {

// Name of a property or trait: zero-terminated UTF-8. Names compare by strcmp, so by bytes and
// case.
//
// A name made from a literal keeps the literal's address and allocates nothing; any other name
// keeps its own copy. Threads: as a plain value.
class Name {
 public:
  // The empty name.
  Name() noexcept : text_("") {}

  // From a string literal, whose address is kept: the array must live as long as the program.
  template <std::size_t N>
  Name(const char (&literal)[N]) noexcept : text_(literal) {}  // NOLINT: literals convert
  template <std::size_t N>
  Name(char (&buffer)[N]) = delete;

  // Copies of the text; a code unit or byte 0 ends the name.
  explicit Name(const Common::String& text);
  static Name FromUtf8(std::string_view text);
  // Keeps the address of zero-terminated UTF-8 that lives as long as the program, like a literal.
  static Name FromImmortal(const char* text) noexcept {
    Name name;
    name.text_ = text;
    return name;
  }

  // A literal's address is shared, an own text copied. A name whose own text was moved away is
  // the empty name.
  Name(const Name& other) : text_(other.text_) {
    if (other.OwnsText()) KeepCopy(other.storage_);
  }
  Name(Name&& other) noexcept : text_(other.text_) {
    if (other.OwnsText()) TakeStorage(other);
  }
  Name& operator=(const Name& other);
  Name& operator=(Name&& other) noexcept;
  ~Name() = default;

  // Zero-terminated UTF-8; valid as long as this name is neither changed nor destroyed.
  const char* GetText() const noexcept { return text_; }
  Common::String ToString() const;
  bool IsEmpty() const noexcept { return *text_ == 0; }

  // Sign of strcmp.
  int Compare(const Name& other) const noexcept {
    return text_ == other.text_ ? 0 : std::strcmp(text_, other.text_);
  }
  friend bool operator==(const Name& a, const Name& b) noexcept { return a.Compare(b) == 0; }
  friend bool operator<(const Name& a, const Name& b) noexcept { return a.Compare(b) < 0; }

 private:
  // Decided by address alone: an own text may be empty.
  bool OwnsText() const noexcept { return text_ == storage_.c_str(); }
  void KeepCopy(const std::string& text) {
    storage_ = text;
    text_ = storage_.c_str();
  }
  // A short text lies inside the string object, so its address changes with the move.
  void TakeStorage(Name& other) noexcept {
    storage_ = std::move(other.storage_);
    text_ = storage_.c_str();
    other.storage_.clear();
    other.text_ = "";
  }

  std::string storage_;
  const char* text_;
};

}  // namespace Por
