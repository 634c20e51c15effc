#pragma once

#include <atomic>

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

namespace Por::Util {

// A constant unit that is made when it is first asked for.
//
// Threads: Get on any. The unit is owned here and dies with the instance, so an instance of static
// storage serves no one after the end of main.
class StaticInstance : public Common::NonCopyable {
 public:
  // Called by each thread that finds no unit yet, so perhaps more than once. Never gives null.
  using Maker = OwnedUnit (*)();

  explicit constexpr StaticInstance(Maker maker) noexcept : maker_(maker) {}
  ~StaticInstance();

  // Throws what the maker throws; the next call then tries again.
  const View::Unit& Get() const;

 private:
  Maker maker_;
  mutable std::atomic<Construction::Unit*> unit_{nullptr};
};

}  // namespace Por::Util
