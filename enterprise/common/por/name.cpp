#include "enterprise/common/por/name.h"

#include "core/common/text.h"

namespace Por {

Name::Name(const Common::String& text) {
  Common::ToUtf8(storage_, text.c_str());
  text_ = storage_.c_str();
}

Name Name::FromUtf8(std::string_view text) {
  Name name;
  name.storage_.assign(text.substr(0, text.find('\0')));
  name.text_ = name.storage_.c_str();
  return name;
}

Name& Name::operator=(const Name& other) {
  if (this == &other) return *this;
  if (other.OwnsText()) {
    KeepCopy(other.storage_);
  } else {
    text_ = other.text_;
    storage_.clear();
  }
  return *this;
}

Name& Name::operator=(Name&& other) noexcept {
  if (this == &other) return *this;
  if (other.OwnsText()) {
    TakeStorage(other);
  } else {
    text_ = other.text_;
    storage_.clear();
  }
  return *this;
}

Common::String Name::ToString() const {
  return Common::Utf8ToString(text_);
}

}  // namespace Por
