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
  std::string utf8;
  Common::ToUtf8(utf8, text_->c_str(), text_->size());
  bytes.assign(utf8.begin(), utf8.end());
}

}  // namespace Utils
