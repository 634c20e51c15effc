#pragma once

#include <cstddef>

// Little-endian numbers at any address.

namespace Core {

template <class Number>
void PutNumber(unsigned char* place, Number number) {
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    place[i] = static_cast<unsigned char>(number >> 8 * i);
  }
}

template <class Number>
Number GetNumber(const unsigned char* place) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    number = static_cast<Number>(number | static_cast<Number>(Number{place[i]} << 8 * i));
  }
  return number;
}

}  // namespace Core
