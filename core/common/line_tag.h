#pragma once

#include <cstdint>

namespace Common {

// The place where an error arose or an operation was asked for. A plain value; the texts are
// static and not owned. All zero means "no place".
struct LineTag {
  // A constant of the source file plus `line`. Nothing decodes it: it identifies the site.
  std::uint64_t location = 0;
  const char* file = nullptr;
  const char* function = nullptr;
  std::uint32_t line = 0;
};

// Makes the line tags of one source file: one constant of this type per file, named after the
// file's path without its ending.
//
//   constexpr Common::SourceFile kSource{"enterprise/common/por/array_value_holder"};
//   throw ModuleError(..., kSource.At("CheckOutOfRange", 53));
//
// Tags are printed, so a line is a stated number and never __LINE__: it stays put when code moves.
class SourceFile {
 public:
  explicit constexpr SourceFile(const char* path) : path_(path), base_(Hash(path)) {}

  constexpr LineTag At(const char* function, std::uint32_t line) const {
    return LineTag{base_ + line, path_, function, line};
  }

 private:
  // FNV-1a, 64 bits (offset basis and prime as published by its authors).
  static constexpr std::uint64_t Hash(const char* text) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (; *text != 0; ++text) {
      hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001b3u;
    }
    return hash;
  }

  const char* path_;
  std::uint64_t base_;
};

}  // namespace Common
