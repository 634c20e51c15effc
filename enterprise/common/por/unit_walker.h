#pragma once

#include <vector>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/name.h"
#include "enterprise/common/por/unit_builder.h"

namespace Por::Util {

// Receives the events of a walk over a unit tree, with the guide that goes to values first:
//
//   unit   = OnUnitBegin value {OnTrait(name) unit} OnUnitEnd
//   value  = OnArray {unit} | OnComposite {OnProperty(name) unit} | one of the scalar events
//
// A receiver may raise; the exception passes through the walk.
class UnitWalker : public Common::NonCopyable {
 public:
  virtual ~UnitWalker() = default;
  virtual void OnUnitBegin() = 0;
  virtual void OnUnitEnd() = 0;
  virtual void OnProperty(const Name& name) = 0;
  virtual void OnTrait(const Name& name) = 0;
  virtual void OnNil() = 0;
  virtual void OnBoolean(bool value) = 0;
  virtual void OnByte(unsigned char value) = 0;
  virtual void OnSByte(signed char value) = 0;
  virtual void OnWord(unsigned short value) = 0;
  virtual void OnSWord(short value) = 0;
  virtual void OnDWord(unsigned int value) = 0;
  virtual void OnSDWord(int value) = 0;
  virtual void OnQWord(unsigned long long value) = 0;
  virtual void OnSQWord(long long value) = 0;
  virtual void OnDouble(double value) = 0;
  virtual void OnBlob(const std::vector<unsigned char>& value) = 0;
  virtual void OnGuid(const Common::Guid& value) = 0;
  virtual void OnString(const Common::String& value) = 0;
  virtual void OnError(const Common::Error& value) = 0;
  virtual void OnArray() = 0;
  virtual void OnComposite() = 0;
};

// Passes each event to the call of the same name of a receiver of such calls: a UnitBuilder, or a
// UnitConstructor, which hands back the receiver of the next call. The end of a unit becomes End;
// its beginning means nothing to a builder. `Target` is a reference or a value.
template <class Target>
class CallingWalker : public UnitWalker {
 public:
  explicit CallingWalker(Target target) : target_(target) {}

  void OnUnitBegin() override {}
  void OnUnitEnd() override { target_.End(); }
  void OnProperty(const Name& name) override { target_.Property(name); }
  void OnTrait(const Name& name) override { target_.Trait(name); }
  void OnNil() override { target_.Nil(); }
#define POR_EVENT(index, Word, Value, Argument) \
  void On##Word(Argument value) override {      \
    target_.Word(value);                        \
  }
  POR_SCALAR_KINDS(POR_EVENT)
#undef POR_EVENT
#define POR_EVENT(index, Word, Value, Argument)   \
  void On##Word(const Argument& value) override { \
    target_.Word(value);                          \
  }
  POR_COMPLEX_KINDS(POR_EVENT)
#undef POR_EVENT
  void OnArray() override {
    target_.Array();
  }
  void OnComposite() override {
    target_.Composite();
  }

 private:
  Target target_;
};

// Feeds a builder, which must outlive the walk.
class UnitBuildingWalker final : public CallingWalker<UnitBuilder&> {
 public:
  using CallingWalker::CallingWalker;
};

}  // namespace Por::Util
