#include "enterprise/common/por/parser/in_memory_data_reader.h"

#include <string>
#include <utility>

#include "core/common/text.h"

namespace Utils {

InMemoryDataReader::InMemoryDataReader(std::optional<Common::String> text)
    : text_(std::move(text)) {}

void InMemoryDataReader::Read(std::vector<unsigned char>& bytes) {
  bytes.clear();
  if (!text_) return;
  const Common::String& text = *text_;
  std::string utf8;
  Common::ToUtf8(utf8, text.c_str(), text.size());
  bytes.assign(utf8.begin(), utf8.end());
}

}  // namespace Utils
