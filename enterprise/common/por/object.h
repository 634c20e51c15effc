#pragma once

#include <utility>

#include "enterprise/common/por/traits_holder.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/visitor.h"

namespace Por {

// The one concrete unit: a value holder and the traits in one allocation.
template <class Holder>
class Object final : public Construction::Unit {
 public:
  // The arguments are the holder's.
  template <class... Arguments>
  explicit Object(Arguments&&... arguments) : value_(std::forward<Arguments>(arguments)...) {}

  void Accept(View::UnitReader& reader) const override { reader.Visit(value_); }
  const View::Traits& GetTraits() const override { return traits_; }
  void Accept(Modification::UnitWriter& writer) override { writer.Visit(value_); }
  void Accept(Construction::UnitBuilder& builder) override { builder.Visit(value_); }
  Construction::Traits& GetTraits() override { return traits_; }

 private:
  Holder value_;
  TraitsHolder traits_;
};

}  // namespace Por
