#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "enterprise/common/por/name.h"

namespace Por::Detail {

// A name that lives as long as the process.
struct KnownName {
  Name name;
  // The first eight bytes of the text as one number, the first byte on top: orders most pairs.
  std::uint64_t order;

  bool LiesBefore(const KnownName& other) const {
    if (order != other.order) return order < other.order;
    return std::strcmp(name.GetText(), other.name.GetText()) < 0;
  }
};

// The name that is given as ASCII in UTF-16LE, `size` bytes of it. Names of the data model are few
// and repeat without end, so each is kept once.
//
// Null when `size` is odd, when the text holds anything but ASCII from 1 on, is longer than 64
// characters, or has no place in the table: it takes about 2,048 names, so that made-up names
// cannot fill the memory. `bytes` needs no alignment. Throws std::bad_alloc. Threads: any, without
// locks.
const KnownName* FindName(const unsigned char* bytes, std::size_t size);

}  // namespace Por::Detail
