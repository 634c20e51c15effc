#include <utility>

#include "core/common/error.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_handle.h"
#include "enterprise/common/por/unit_library.h"
#include "enterprise/common/por/unit_path.h"

namespace Por {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/mutable_unit"};

const Construction::UnitFactory* GetLibraryFactory() {
  Construction::UnitFactory* factory = nullptr;
  GetPorViewUnitFactory(&factory);
  if (factory == nullptr) {
    throw Common::MakeTracedError(kPorInternal,
                                  Common::GetMessageText(Common::MessageRow::PorUninitialized),
                                  kSource.At("GetLibraryFactory", 40));
  }
  return factory;
}

}  // namespace

MutableUnit::MutableUnit() : UnitHandle(nullptr, {}, GetLibraryFactory()) {
  root_ = std::make_shared<std::shared_ptr<Construction::Unit>>(factory_->CreateComposite());
}

MutableUnit::MutableUnit(std::shared_ptr<Construction::Unit> root,
                         const Construction::UnitFactory& factory)
    : UnitHandle(std::make_shared<std::shared_ptr<Construction::Unit>>(std::move(root)), {},
                 &factory) {}

MutableUnit MutableUnit::operator[](const Name& name) const {
  return MutableUnit(root_, Util::JoinPath(path_, name), factory_);
}

void MutableUnit::Assign(OwnedUnit unit) {
  if (path_.empty()) {
    *root_ = std::move(unit);
  } else {
    if (unit == nullptr) {
      throw Common::MakeTracedError(kPorNullUnit,
                                    Common::GetMessageText(Common::MessageRow::PorNullUnit),
                                    kSource.At("Assign", 120));
    }
    *root_ = Util::PutUnitInLocation(*root_, *unit, path_, *factory_);
  }
}

}  // namespace Por
