#pragma once

#include "enterprise/common/por/exclude_trait_unit.h"
#include "enterprise/common/por/trait_holder.h"

namespace ObjProbeService {

// Traits by which the records of a transmission say where they belong.
inline constexpr char kChannelId[] = "ChannelID";  // all records: the channel's number, a DWord
inline constexpr char kChannelCreation[] = "ChannelCreation";
inline constexpr char kChannelRemoval[] = "ChannelRemoval";
inline constexpr char kChannelError[] = "ChannelError";

// Shows the traits of a unit with one more. Those of the names above that it has itself are hidden:
// what an object holds never passes for the service's word.
class MarkedTraits final : public Por::View::Traits {
 public:
  MarkedTraits(const Por::View::Traits& inner, const Por::View::Trait& mark)
      : inner_(&inner), mark_(&mark) {}
  void ForEach(Por::ItemProcessor<const Por::View::Trait>& processor) const override;
  void ForEach(const Por::Name& name,
               Por::ItemProcessor<const Por::View::Trait>& processor) const override;

 private:
  const Por::View::Traits* inner_;
  const Por::View::Trait* mark_;
};

// Shows a unit with one trait more, uncopied. Unit and trait must outlive it.
class MarkedUnit final : public Por::View::DelegatingUnit {
 public:
  MarkedUnit(const Por::View::Unit& inner, const Por::View::Trait& mark)
      : DelegatingUnit(inner), traits_(inner.GetTraits(), mark) {}
  const Por::View::Traits& GetTraits() const override { return traits_; }

 private:
  MarkedTraits traits_;
};

}  // namespace ObjProbeService
