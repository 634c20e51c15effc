#include "core/xml/xml_tag.h"

#include <utility>

#include "core/xml/tree_memory.h"

namespace Core {

XmlTag::AttributeRange XmlTag::GetAttributes() const {
  if (attributes_ == nullptr) return {nullptr, 0};
  return {reinterpret_cast<const XmlAttribute*>(attributes_ + 1), attributes_->count};
}

const XmlAttribute* XmlTag::FindAttribute(std::string_view name) const {
  for (const XmlAttribute& attribute : GetAttributes()) {
    if (attribute.GetName() == name) return &attribute;
  }
  return nullptr;
}

XmlDocument::XmlDocument(XmlDocument&& other) noexcept
    : chunks_(std::exchange(other.chunks_, nullptr)), root_(std::exchange(other.root_, nullptr)) {}

XmlDocument& XmlDocument::operator=(XmlDocument&& other) noexcept {
  std::swap(chunks_, other.chunks_);
  std::swap(root_, other.root_);
  if (this != &other) other.Clear();
  return *this;
}

XmlDocument::~XmlDocument() {
  Clear();
}

void XmlDocument::Clear() noexcept {
  root_ = nullptr;
  while (chunks_ != nullptr) XmlDetail::ReleaseChunk(std::exchange(chunks_, chunks_->next));
}

}  // namespace Core
