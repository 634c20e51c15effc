#pragma once

#include <optional>

#include "core/common/string.h"
#include "enterprise/common/por/parser/data_reader.h"

namespace Utils {

// Gives a text as UTF-8, up to its first code unit 0.
class InMemoryDataReader final : public DataReader {
 public:
  // Without a text there are no bytes.
  explicit InMemoryDataReader(std::optional<Common::String> text);
  void Read(std::vector<unsigned char>& bytes) override;

 private:
  std::optional<Common::String> text_;
};

}  // namespace Utils
