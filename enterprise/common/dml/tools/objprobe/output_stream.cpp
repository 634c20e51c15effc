#include "enterprise/common/dml/tools/objprobe/output_stream.h"

#include <string_view>

namespace ObjProbe {

OutputStream::Buffer::int_type OutputStream::Buffer::overflow(int_type c) {
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    const char byte = traits_type::to_char_type(c);
    xsputn(&byte, 1);
  }
  return traits_type::not_eof(c);
}

std::streamsize OutputStream::Buffer::xsputn(const char* text, std::streamsize size) {
  const std::string_view piece(text, static_cast<std::size_t>(size));
  output_.Append(piece);
  if (piece.find('\n') != std::string_view::npos) output_.Flush();
  return size;
}

int OutputStream::Buffer::sync() {
  output_.Flush();
  return 0;
}

}  // namespace ObjProbe
