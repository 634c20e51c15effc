#pragma once

#include <ostream>
#include <streambuf>

#include "enterprise/common/dml/tools/objprobe/output.h"

namespace ObjProbe {

// An ostream on an Output, which must outlive it. Keeps nothing to itself, so both may be written
// to in turn. Flushed at each line end.
class OutputStream final : public std::ostream {
 public:
  explicit OutputStream(Output& output) : std::ostream(nullptr), buffer_(output) {
    rdbuf(&buffer_);
  }

 private:
  class Buffer final : public std::streambuf {
   public:
    explicit Buffer(Output& output) : output_(output) {}

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int sync() override;

   private:
    Output& output_;
  };

  Buffer buffer_;
};

}  // namespace ObjProbe
