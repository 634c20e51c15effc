#include "enterprise/common/por/unit_handle.h"

#include <utility>

#include "core/common/error.h"
#include "core/common/message_table.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/unit_path.h"

namespace Por {

namespace {

// Printed with the errors of both handles.
constexpr Common::SourceFile kSource{"enterprise/common/por/const_unit"};

const View::Unit* ResolvePath(const Common::String& path, const View::Unit* root) {
  return Util::ResolveViewUnit(path, root);
}

Construction::Unit* ResolvePath(const Common::String& path, Construction::Unit* root) {
  return Util::ResolveUnit(path, root);
}

}  // namespace

namespace Detail {

template <class Face>
UnitHandle<Face>::UnitHandle(Cell root, Common::String path,
                             const Construction::UnitFactory* factory)
    : root_(std::move(root)), path_(std::move(path)), factory_(factory) {}

template <class Face>
Face* UnitHandle<Face>::Resolve() const {
  return ResolvePath(path_, root_->get());
}

template <class Face>
Face& UnitHandle<Face>::GetUnit() const {
  Face* const unit = Resolve();
  if (unit == nullptr) {
    Common::String text;
    Common::FormatMessage(text, Common::GetMessageText(Common::MessageRow::PorPathAccess), path_);
    throw Common::MakeTracedError(kPorInternal, text.c_str(),
                                  kSource.At("UnitMissingPropertyAccess", 89));
  }
  return *unit;
}

template <class Face>
std::shared_ptr<Face> UnitHandle<Face>::GetShared() const {
  Face* const unit = Resolve();
  return unit != nullptr ? std::shared_ptr<Face>(*root_, unit) : nullptr;
}

template <class Face>
OwnedUnit UnitHandle<Face>::Clone() const {
  Face* const unit = Resolve();
  return unit != nullptr ? Util::CopyUnit(*unit, *factory_) : nullptr;
}

template class UnitHandle<const View::Unit>;
template class UnitHandle<Construction::Unit>;

}  // namespace Detail

ConstUnit::ConstUnit(SharedUnit root, const Construction::UnitFactory& factory)
    : UnitHandle(std::make_shared<SharedUnit>(std::move(root)), {}, &factory) {}

ConstUnit ConstUnit::operator[](const Name& name) const {
  return ConstUnit(root_, Util::JoinPath(path_, name), factory_);
}

}  // namespace Por
