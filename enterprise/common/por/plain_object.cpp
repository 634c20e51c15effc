#include "enterprise/common/por/plain_object.h"

#include <utility>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/plain_object"};

Common::Error MakePropertyError(std::uint32_t code, Common::MessageRow row, const Name& name,
                                const Common::LineTag& tag) {
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(row), name.ToString());
  return Common::MakeTracedError(code, text.c_str(), tag);
}

class ThrowingErrorHandler final : public ErrorHandler {
 public:
  [[noreturn]] void PropertyNotFound(const Name& name) override {
    throw MakePropertyError(kPorPropertyNotFound, Common::MessageRow::PorPropertyNotFound, name,
                            kSource.At("PropertyNotFound", 52));
  }
  [[noreturn]] void PropertyTypeMismatch(const Name& name, unsigned int expected,
                                         unsigned int actual) override {
    throw Util::Detail::MakePropertyTypeMismatchError(name, expected, actual);
  }
  [[noreturn]] void PropertyProcessingError(const Name& name,
                                            const Common::Error& reason) override {
    Common::Error error = MakePropertyError(kPorInternal, Common::MessageRow::PorPropertyProcessing,
                                            name, kSource.At("PropertyProcessingError", 62));
    error.SetReason(reason);
    throw error;
  }
};

// Of static storage, but there before any code runs and never destroyed: objects of static storage
// may use it.
union ImmortalHandler {
  constexpr ImmortalHandler() : handler() {}
  ~ImmortalHandler() {}

  ThrowingErrorHandler handler;
};
constinit ImmortalHandler throwing_handler;

[[noreturn]] void ThrowInternalError(Common::MessageRow row, const Common::LineTag& tag) {
  throw Common::MakeTracedError(kPorInternal, Common::GetMessageText(row), tag);
}

}  // namespace

BaseObject::BaseObject(std::shared_ptr<Construction::Unit> root, Construction::Unit* branch,
                       const Construction::UnitFactory* factory, ErrorHandler* error_handler)
    : root_(std::move(root)),
      branch_(branch),
      factory_(factory),
      error_handler_(error_handler != nullptr ? error_handler : &throwing_handler.handler) {}

// The base can't be copied as such; there is nothing in it.
BaseObject::BaseObject(const BaseObject& other)
    : PlainObject(),
      CategoryHolder(other),
      root_(other.root_),
      branch_(other.branch_),
      factory_(other.factory_),
      error_handler_(other.error_handler_),
      default_value_(other.default_value_) {}

const Construction::UnitFactory& BaseObject::Factory() const {
  if (factory_ == nullptr) {
    ThrowInternalError(Common::MessageRow::PorUninitialized, kSource.At("Factory", 245));
  }
  return *factory_;
}

Construction::Unit& BaseObject::Branch() const {
  if (branch_ == nullptr) {
    ThrowInternalError(Common::MessageRow::PorUninitialized, kSource.At("Branch", 252));
  }
  return *branch_;
}

OwnedUnit BaseObject::CreateUnit() const {
  const View::Unit& branch = Branch();
  return Util::CopyUnit(branch, Factory());
}

const View::Unit& BaseObject::DefaultValue() const {
  if (default_value_ == nullptr) {
    ThrowInternalError(Common::MessageRow::PorInternal, kSource.At("DefaultValue", 330));
  }
  return default_value_();
}

}  // namespace Por
