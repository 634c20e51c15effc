#include "core/xml/tree_builder.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "core/xml/tree_memory.h"

namespace Core::XmlDetail {

namespace {

// Room that a text has at least when it begins.
constexpr std::size_t kTextRoom = 64;

std::size_t GetTextSize(std::size_t units) {
  if (units >
      (std::numeric_limits<std::size_t>::max() / 4 - sizeof(TextRecord)) / sizeof(char16_t)) {
    throw std::bad_alloc();
  }
  return sizeof(TextRecord) + units * sizeof(char16_t);
}

}  // namespace

void TreeBuilder::Reset() {
  document_.Clear();
  at_ = end_ = nullptr;
  current_ = last_ = nullptr;
  text_end_ = nullptr;
  attributes_.clear();
  names_.clear();
  name_cache_.fill(nullptr);
}

NameRecord* TreeBuilder::Intern(std::string_view name) {
  // Most documents have few names: a look at one place of a table finds nearly all of them. The map
  // behind it has no bad case.
  std::size_t place = name.size();
  if (!name.empty()) {
    place += static_cast<unsigned char>(name.front()) * std::size_t{5} +
             static_cast<unsigned char>(name[name.size() / 2]) * std::size_t{17} +
             static_cast<unsigned char>(name.back()) * std::size_t{3};
  }
  NameRecord*& cached = name_cache_[place % kNameCacheSize];
  if (cached != nullptr && cached->Get() == name) return cached;
  const auto found = names_.find(name);
  if (found != names_.end()) return cached = found->second;
  auto* const record =
      new (Allocate(sizeof(NameRecord) + name.size())) NameRecord{name.size(), nullptr};
  if (!name.empty()) std::memcpy(record + 1, name.data(), name.size());
  names_.emplace(record->Get(), record);
  return cached = record;
}

void TreeBuilder::OpenTag(const NameRecord* name) {
  auto* const tag = new (Allocate(sizeof(XmlTag))) XmlTag;
  tag->name_ = name;
  tag->parent_ = current_;
  if (current_ == nullptr) {
    document_.root_ = tag;
  } else if (last_ == nullptr) {
    current_->first_child_ = tag;
  } else {
    last_->next_ = tag;
  }
  current_ = tag;
  last_ = nullptr;
}

void TreeBuilder::CloseTag() {
  last_ = current_;
  current_ = current_->parent_;
}

bool TreeBuilder::AddAttribute(NameRecord* name) {
  if (name->mark == current_) return false;
  XmlAttribute attribute;
  attribute.name_ = name;
  attribute.value_ = nullptr;
  attributes_.push_back(attribute);
  name->mark = current_;
  return true;
}

void TreeBuilder::FinishAttributes() {
  if (attributes_.empty()) return;
  const std::size_t count = attributes_.size();
  auto* const record = new (Allocate(sizeof(XmlTag::Attributes) + count * sizeof(XmlAttribute)))
      XmlTag::Attributes{count};
  std::copy(attributes_.begin(), attributes_.end(), reinterpret_cast<XmlAttribute*>(record + 1));
  current_->attributes_ = record;
  attributes_.clear();
}

TreeBuilder::TextPlace TreeBuilder::OpenText() {
  if (text_end_ == nullptr) {
    const std::size_t size = GetTextSize(kTextRoom);
    if (size > static_cast<std::size_t>(end_ - at_)) AddChunk(size);
    text_end_ = reinterpret_cast<char16_t*>(at_ + sizeof(TextRecord));
  }
  return {text_end_, reinterpret_cast<char16_t*>(end_)};
}

TreeBuilder::TextPlace TreeBuilder::GrowText(const TextPlace& place, std::size_t room) {
  if (place.GetRoom() >= room) return place;
  const char* const begin = at_;
  const std::size_t used = static_cast<std::size_t>(reinterpret_cast<char*>(place.to) - begin);
  Chunk* const former = document_.chunks_;
  // Twice the size each time: a long text is copied once on average.
  AddChunk(std::max(used, GetTextSize(room)) + used);
  std::memcpy(at_ + sizeof(TextRecord), begin + sizeof(TextRecord), used - sizeof(TextRecord));
  // Nothing else lay there: a long text leaves no shells of itself behind.
  if (begin == GetMemory(former)) {
    document_.chunks_->next = former->next;
    document_.chunks_->total -= former->size;
    ReleaseChunk(former);
  }
  text_end_ = reinterpret_cast<char16_t*>(at_ + used);
  return {text_end_, reinterpret_cast<char16_t*>(end_)};
}

TextRecord* TreeBuilder::TakeText() {
  if (text_end_ == nullptr) return nullptr;
  const auto* const units = reinterpret_cast<char16_t*>(at_ + sizeof(TextRecord));
  const auto count = static_cast<std::size_t>(std::exchange(text_end_, nullptr) - units);
  if (count == 0) return nullptr;
  return new (Allocate(sizeof(TextRecord) + count * sizeof(char16_t))) TextRecord{count};
}

void TreeBuilder::CloseText() {
  if (text_end_ == nullptr) return;
  (last_ == nullptr ? current_->text_ : last_->text_behind_) = TakeText();
}

std::u16string_view TreeBuilder::CloseValue() {
  attributes_.back().value_ = TakeText();
  return attributes_.back().GetValue();
}

void TreeBuilder::SetText(const Common::String& text) {
  const TextPlace place = GrowText(OpenText(), text.size());
  KeepText({std::copy(text.begin(), text.end(), place.to), place.limit});
  CloseText();
}

void TreeBuilder::SetValue(const Common::String& value) {
  const TextPlace place = GrowText(OpenText(), value.size());
  KeepText({std::copy(value.begin(), value.end(), place.to), place.limit});
  CloseValue();
}

void TreeBuilder::AddChunk(std::size_t size) {
  Chunk* const chunk = MakeChunk(size, document_.chunks_);
  document_.chunks_ = chunk;
  at_ = GetMemory(chunk);
  end_ = reinterpret_cast<char*>(chunk) + chunk->size;
}

}  // namespace Core::XmlDetail
