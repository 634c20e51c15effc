#pragma once

#include <string.h>

#include <string>
#include <vector>

#include "core/common/non_copyable.h"

namespace Common {

// Overwrites what has held a password.
inline void Wipe(std::vector<unsigned char>& bytes) {
  if (!bytes.empty()) ::explicit_bzero(bytes.data(), bytes.size());
}

// Does so with bytes that are borrowed, unless there are none or they have been moved away.
class WipeAtEnd : public NonCopyable {
 public:
  explicit WipeAtEnd(std::vector<unsigned char>* bytes) : bytes_(bytes) {}
  ~WipeAtEnd() {
    if (bytes_ != nullptr) Wipe(*bytes_);
  }

 private:
  std::vector<unsigned char>* const bytes_;
};

// A text that is overwritten when it goes, with what its string has room for.
class Secret : public NonCopyable {
 public:
  Secret() = default;
  ~Secret() { Wipe(); }

  void Wipe() {
    text_.resize(text_.capacity());
    ::explicit_bzero(text_.data(), text_.size());
    text_.clear();
  }
  // For filling it; whoever lets it grow leaves a copy behind, so room is to be reserved before.
  std::string& Fill() { return text_; }
  const std::string& Get() const { return text_; }

 private:
  std::string text_;
};

}  // namespace Common
