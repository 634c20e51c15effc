#pragma once

#include <boost/shared_array.hpp>
#include <cstdint>
#include <string>

#include "core/common/line_tag.h"

namespace Core {

// Names the place that asked for an operation. Travels with requests.
struct EntryPoint {
  EntryPoint() = default;
  explicit EntryPoint(const Common::LineTag& tag)
      : location(tag.location), file(tag.file != nullptr ? tag.file : ""), line(tag.line) {}

  std::uint64_t location = 0;
  std::string file;
  std::uint32_t line = 0;
  boost::shared_array<unsigned char> buffer;  // empty in this program
  std::uint32_t length = 0;
};

}  // namespace Core
