#pragma once

#include <vector>

#include "core/common/non_copyable.h"

namespace Utils {

// A source of bytes.
class DataReader : public Common::NonCopyable {
 public:
  virtual ~DataReader() = default;
  // Replaces the content of `bytes` by the whole content of the source. Throws Common::Error when
  // the source cannot be read.
  virtual void Read(std::vector<unsigned char>& bytes) = 0;
};

}  // namespace Utils
