#include "enterprise/common/por/static_instance.h"

#include "enterprise/common/por/unit.h"

namespace Por::Util {

StaticInstance::~StaticInstance() {
  delete unit_.load(std::memory_order_acquire);
}

const View::Unit& StaticInstance::Get() const {
  Construction::Unit* known = unit_.load(std::memory_order_acquire);
  if (known != nullptr) return *known;
  OwnedUnit made = maker_();
  if (unit_.compare_exchange_strong(known, made.get(), std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
    return *made.release();
  }
  return *known;
}

}  // namespace Por::Util
