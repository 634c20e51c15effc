#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/common/por/fwd.h"

// The visitors of the three faces, the ones that do nothing, and the adaptors that make a visitor
// of a plain class with overloads. Seventeen Visit operations each, in the order of the type index.

namespace Por::View {

class UnitReader : public Common::NonCopyable {
 public:
  virtual ~UnitReader() = default;
#define POR_VISIT(index, Word, Value, Argument) virtual void Visit(const Value& value) = 0;
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT
};

// Every Visit does nothing.
class NullVisitor : public UnitReader {
 public:
#define POR_VISIT(index, Word, Value, Argument) \
  void Visit(const Value&) override {}
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT
};

namespace Detail {

// Calls the overload `(*impl)(value)` for the visited value. `impl` is borrowed.
template <class Impl>
class UnitVisitorAdaptor : public UnitReader {
 public:
  explicit UnitVisitorAdaptor(Impl& impl) : impl_(&impl) {}
#define POR_VISIT(index, Word, Value, Argument) \
  void Visit(const Value& value) override {     \
    (*impl_)(value);                            \
  }
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT

 private:
  Impl* impl_;
};

}  // namespace Detail
}  // namespace Por::View

namespace Por::Modification {

class UnitWriter : public Common::NonCopyable {
 public:
  virtual ~UnitWriter() = default;
#define POR_VISIT(index, Word, Value, Argument) virtual void Visit(Value& value) = 0;
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT
};

namespace Detail {

template <class Impl>
class UnitVisitorAdaptor : public UnitWriter {
 public:
  explicit UnitVisitorAdaptor(Impl& impl) : impl_(&impl) {}
#define POR_VISIT(index, Word, Value, Argument) \
  void Visit(Value& value) override {           \
    (*impl_)(value);                            \
  }
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT

 private:
  Impl* impl_;
};

}  // namespace Detail
}  // namespace Por::Modification

namespace Por::Construction {

class UnitBuilder : public Common::NonCopyable {
 public:
  virtual ~UnitBuilder() = default;
#define POR_VISIT(index, Word, Value, Argument) virtual void Visit(Value& value) = 0;
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT
};

// Every Visit does nothing.
class NullVisitor : public UnitBuilder {
 public:
#define POR_VISIT(index, Word, Value, Argument) \
  void Visit(Value&) override {}
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT
};

namespace Detail {

template <class Impl>
class UnitVisitorAdaptor : public UnitBuilder {
 public:
  explicit UnitVisitorAdaptor(Impl& impl) : impl_(&impl) {}
#define POR_VISIT(index, Word, Value, Argument) \
  void Visit(Value& value) override {           \
    (*impl_)(value);                            \
  }
  POR_VALUE_KINDS(POR_VISIT)
#undef POR_VISIT

 private:
  Impl* impl_;
};

}  // namespace Detail
}  // namespace Por::Construction
