#pragma once

#include <new>
#include <stdexcept>

#include "core/common/line_tag.h"
#include "core/include/file/file.h"

namespace Core {

// One operation of a directory: forgets the error of the one before and gives what `body` gives, or
// an empty result and 0x40006 when memory is out.
template <class Body>
auto GuardOperation(file_object& directory, const Common::LineTag& tag, Body body)
    -> decltype(body()) {
  directory.SetError({});
  try {
    return body();
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  directory.SetError(MakeFileError(kFileNoMemory, tag));
  return decltype(body())();
}

}  // namespace Core
