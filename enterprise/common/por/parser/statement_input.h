#pragma once

#include <algorithm>
#include <string_view>

namespace Utils {

// The cursor of the parser: a place in widened text. Borrows the text.
class StatementInput {
 public:
  explicit StatementInput(std::u16string_view text)
      : current_(text.data()), end_(text.data() + text.size()) {}

  bool IsAtEnd() const { return current_ == end_; }

  // The current character; Common::Error 1 "Input is over!" at the end.
  char16_t GetInput() const {
    if (IsAtEnd()) ThrowInputIsOver();
    return *current_;
  }

  // The first place from the current one on whose character fulfils `predicate`; Common::Error 2
  // "Expected symbol is not found!" if there is none.
  template <class Predicate>
  const char16_t* GetNext(Predicate predicate) const {
    const char16_t* const found = std::find_if(current_, end_, predicate);
    if (found == end_) ThrowSymbolNotFound();
    return found;
  }

  // Steps over the current character, whatever it is; Common::Error 1 at the end.
  void Skip() {
    GetInput();
    ++current_;
  }
  void SkipBlanks();

  // The text from here up to `place`, which GetNext gave; goes on there.
  std::u16string_view TakeUpTo(const char16_t* place) {
    const std::u16string_view taken(current_, static_cast<std::size_t>(place - current_));
    current_ = place;
    return taken;
  }

 private:
  [[noreturn]] static void ThrowInputIsOver();
  [[noreturn]] static void ThrowSymbolNotFound();

  const char16_t* current_;
  const char16_t* end_;
};

}  // namespace Utils
