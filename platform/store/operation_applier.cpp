#include "platform/store/operation_applier.h"

#include <optional>
#include <string_view>
#include <utility>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/number_text.h"
#include "core/common/text.h"
#include "enterprise/common/dml/get_object_key.h"
#include "enterprise/common/dml/missing_part.h"
#include "enterprise/common/dml/operation.h"
#include "enterprise/common/dml/safe_invoke.h"
#include "enterprise/common/por/assign_unit.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/matches.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/types_mismatch.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_operations.h"
#include "enterprise/common/por/value.h"
#include "enterprise/common/por/visit_value.h"
#include "platform/store/consolidate_unit.h"
#include "platform/store/is_index.h"
#include "platform/store/limit_option.h"

namespace Platform::Store {

struct OperationApplier::Class {
  std::u16string_view name;
  const Por::View::Unit& (*get_default)();
  // Null for a batch.
  void (OperationApplier::*run)(const Por::View::Unit& operation, OperationOutcome& outcome);
};

namespace {

using Por::View::Unit;

constexpr Common::SourceFile kSource{"platform/store/operation_applier"};

constexpr std::u16string_view kNamespace = u"Dml::Operation::";

Common::Error Refuse(const Common::String& reason, std::uint32_t line) {
  return Common::Error(kOperationRefusedCode, reason.c_str(), kSource.At("Refuse", line));
}

Common::String GetIdText(const Common::Guid& id) {
  return Common::Utf8ToString(Common::GuidToString(id).c_str());
}

// `text` with the name, which is quoted from the outside, behind it.
Common::String Quote(const Common::String& text, const Common::String& name) {
  return text + u"\"" + name + u"\".";
}

Common::Error MakeNoObjectError(const Common::Guid& id) {
  return Refuse(u"The store holds no object " + GetIdText(id) + u".", 10);
}

Common::Guid GetId(const Unit& object) {
  return Dml::GetKeyGuid(Dml::FindObjectKey(object));
}

// The name of the class behind Definition.
Common::String GetClassName(const Unit& operation) {
  using Text = Por::View::ComplexValue<Common::String>;
  Common::String name;
  bool is_one = true;
  auto look = Por::MakeProcessor<const Por::View::Trait>([&](const Por::View::Trait& trait) {
    Por::Util::Detail::VisitValue<Text>(trait.GetValue(), [&](const Text& value) {
      const Common::String& text = value.Get();
      if (!text.starts_with(kNamespace) || text == Dml::Operation::Definition::kName) return;
      is_one = name.empty();
      name = text;
    });
    return !is_one;
  });
  operation.GetTraits().ForEach("Is", look);
  if (name.empty()) throw Refuse(u"No trait \"Is\" names an operation.", 20);
  if (!is_one) throw Refuse(u"The traits \"Is\" name more than one operation.", 30);
  return name;
}

std::string GetShortName(std::u16string_view name) {
  name.remove_prefix(kNamespace.size());
  std::string result;
  Common::ToUtf8(result, name.data(), name.size());
  return result;
}

// A misspelt name must not pass for one that isn't set.
template <class IsKnown>
void CheckProperties(const Unit& unit, const Common::String& subject, IsKnown&& is_known) {
  auto check = Por::MakeProcessor<const Por::View::Property>([&](const Por::View::Property& given) {
    if (is_known(given.GetName())) return;
    throw Refuse(Quote(subject + u" can't have a property ", given.GetName().ToString()), 50);
  });
  const bool is_composite = Por::Util::Detail::VisitValue<Por::View::CompositeValue>(
      unit, [&](const Por::View::CompositeValue& composite) { composite.ForEach(check); });
  if (!is_composite) throw Refuse(subject + u" must be a composite.", 60);
}

// Null for one that isn't there, or marked as not set.
const Unit* FindValue(const Unit& operation, const Por::Name& name) {
  const Por::View::Property* const property = Por::Util::FindProperty(operation, name);
  if (property == nullptr) return nullptr;
  const Unit& value = property->GetValue();
  const bool is_set =
      Por::Util::GetValueTypeIndex(value) != Por::kNilIndex || !Por::Util::HasTrait(value, "Nil");
  return is_set ? &value : nullptr;
}

const Unit& GetValue(const Unit& operation, const Por::Name& name) {
  const Unit* const value = FindValue(operation, name);
  if (value == nullptr) {
    throw Dml::MakeMissingPartError(name.ToString(), kSource.At("GetValue", 70));
  }
  return *value;
}

const Unit& GetOperations(const Unit& batch) {
  const Unit& operations = GetValue(batch, "Operations");
  if (Por::Util::IsArray(operations)) return operations;
  throw Por::Util::Detail::MakePropertyTypeMismatchError("Operations", Por::kArrayIndex,
                                                         Por::Util::GetValueTypeIndex(operations));
}

}  // namespace

const OperationApplier::Class& OperationApplier::GetClass(const Unit& operation) {
  namespace Operation = Dml::Operation;
  using Applier = OperationApplier;
  static constexpr Class kClasses[] = {
      {Operation::CreateObject::kName, &Operation::CreateObject::GetDefault,
       &Applier::Store<Existing::kRefuse, Missing::kCreate>},
      {Operation::UpdateObject::kName, &Operation::UpdateObject::GetDefault, &Applier::Update},
      {Operation::DeleteObject::kName, &Operation::DeleteObject::GetDefault, &Applier::Delete},
      {Operation::UpdateByPattern::kName, &Operation::UpdateByPattern::GetDefault,
       &Applier::UpdateByPattern},
      {Operation::DeleteByPattern::kName, &Operation::DeleteByPattern::GetDefault,
       &Applier::DeleteByPattern},
      {Operation::StoreOrUpdate::kName, &Operation::StoreOrUpdate::GetDefault,
       &Applier::Store<Existing::kUpdate, Missing::kCreate>},
      {Operation::StoreOrConsolidate::kName, &Operation::StoreOrConsolidate::GetDefault,
       &Applier::Store<Existing::kConsolidate, Missing::kCreate>},
      {Operation::CreateIfNotExist::kName, &Operation::CreateIfNotExist::GetDefault,
       &Applier::Store<Existing::kKeep, Missing::kCreate>},
      {Operation::ConsolidateIfExists::kName, &Operation::ConsolidateIfExists::GetDefault,
       &Applier::Store<Existing::kConsolidate, Missing::kIgnore>},
      {Operation::BatchOperation::kName, &Operation::BatchOperation::GetDefault, nullptr}};
  const Common::String name = GetClassName(operation);
  for (const Class& candidate : kClasses) {
    if (candidate.name == name) return candidate;
  }
  throw Refuse(Quote(u"There is no operation ", name), 40);
}

void OperationApplier::Apply(const Unit& root) {
  if (Por::Util::IsArray(root)) {
    ApplyAll(root, "");
  } else {
    ApplyOne(root, "1");
  }
}

void OperationApplier::ApplyAll(const Unit& operations, const std::string& batch) {
  const unsigned long long count = Por::Util::GetArraySize(operations);
  for (unsigned long long i = 0; i < count; ++i) {
    ApplyOne(*Por::Util::GetArrayElement(operations, i), batch + std::to_string(i + 1));
  }
}

// Recursion ends with the nesting of units.
void OperationApplier::ApplyOne(const Unit& operation, const std::string& place) {
  OperationOutcome outcome;
  outcome.place = place;
  const Unit* batch = nullptr;
  try {
    const Class& operation_class = GetClass(operation);
    outcome.name = GetShortName(operation_class.name);
    const Unit& prototype = operation_class.get_default();
    CheckProperties(operation, u"The operation", [&](const Por::Name& name) {
      return Por::Util::FindProperty(prototype, name) != nullptr;
    });
    if (operation_class.run != nullptr) {
      (this->*operation_class.run)(operation, outcome);
    } else {
      batch = &GetOperations(operation);
      outcome.result = std::to_string(Por::Util::GetArraySize(*batch)) + " operations";
    }
  } catch (const Common::Error& reason) {
    std::string text = "Operation " + place;
    if (!outcome.name.empty()) text += " (" + outcome.name + ")";
    Common::Error error(reason.GetCode(), (text + " has failed.").c_str(),
                        kSource.At("ApplyOne", 80));
    error.SetReason(reason);
    throw error;
  }
  outcomes_.push_back(std::move(outcome));
  if (batch != nullptr) ApplyAll(*batch, place + ".");
}

template <OperationApplier::Existing kExisting, OperationApplier::Missing kMissing>
void OperationApplier::Store(const Unit& operation, OperationOutcome& outcome) {
  const Unit& object = GetValue(operation, "Object");
  const Common::Guid id = GetId(object);
  outcome.object = Common::GuidToString(id);
  if (!writer_.Read(id, data_)) {
    if (kMissing == Missing::kCreate) writer_.Put(object);
    outcome.result = kMissing == Missing::kCreate ? "created" : "absent";
    return;
  }
  switch (kExisting) {
    case Existing::kRefuse:
      throw Refuse(u"The store already holds object " + GetIdText(id) + u".", 90);
    case Existing::kKeep:
      outcome.result = "exists";
      break;
    case Existing::kUpdate:
      outcome.result = Patch(id, object) ? "updated" : "unchanged";
      break;
    case Existing::kConsolidate:
      outcome.result = Consolidate(id, object) ? "consolidated" : "unchanged";
      break;
  }
}

void OperationApplier::Update(const Unit& operation, OperationOutcome& outcome) {
  const Common::Guid id = Dml::GetKeyGuid(GetValue(operation, "Key"));
  outcome.object = Common::GuidToString(id);
  outcome.result = Patch(id, GetValue(operation, "Patch")) ? "updated" : "unchanged";
}

void OperationApplier::Delete(const Unit& operation, OperationOutcome& outcome) {
  const Common::Guid id = Dml::GetKeyGuid(GetValue(operation, "Key"));
  outcome.object = Common::GuidToString(id);
  if (!writer_.Delete(id)) throw MakeNoObjectError(id);
  outcome.result = "deleted";
}

void OperationApplier::UpdateByPattern(const Unit& operation, OperationOutcome& outcome) {
  const Unit& patch = GetValue(operation, "Patch");
  unsigned long long updated = 0;
  unsigned long long unchanged = 0;
  for (const Common::Guid& id : Match(GetValue(operation, "Pattern"), nullptr)) {
    ++(Patch(id, patch) ? updated : unchanged);
  }
  outcome.result =
      std::to_string(updated) + " updated, " + std::to_string(unchanged) + " unchanged";
}

void OperationApplier::DeleteByPattern(const Unit& operation, OperationOutcome& outcome) {
  const Unit* const options = FindValue(operation, "Options");
  if (options != nullptr) {
    CheckProperties(*options, u"The property \"Options\"",
                    [](const Por::Name& name) { return name == "LimitOptions"; });
  }
  const std::vector<Common::Guid> ids = Match(GetValue(operation, "Pattern"), options);
  for (const Common::Guid& id : ids) {
    if (!writer_.Delete(id)) throw MakeNoObjectError(id);
  }
  outcome.result = std::to_string(ids.size()) + " deleted";
}

// All are found before the first is changed: what an operation does must not decide what it meets.
std::vector<Common::Guid> OperationApplier::Match(const Unit& pattern, const Unit* options) {
  const std::optional<unsigned int> limit = GetLimit(options);
  std::vector<Common::Guid> ids;
  if (limit == 0U) return ids;
  writer_.ForEach(GetDemandedIsKeys(pattern), [&](const StoredObject& object) {
    Por::OwnedUnit unit;
    Dml::SafeInvoke([&] { unit = Por::Util::ReadUnitBlob(object.data, object.size, factory_); });
    if (unit == nullptr || !Por::Util::Matches(*unit, pattern)) return false;
    ids.push_back(GetId(*unit));
    return limit.has_value() && ids.size() >= *limit;
  });
  return ids;
}

bool OperationApplier::Patch(const Common::Guid& id, const Unit& patch) {
  return ChangeObject(id, [&](Por::OwnedUnit object) {
    Por::Util::AssignUnit(*object, patch, factory_);
    return object;
  });
}

bool OperationApplier::Consolidate(const Common::Guid& id, const Unit& object) {
  return ChangeObject(id, [&](Por::OwnedUnit stored) {
    return ConsolidateUnit(std::move(stored), object, factory_);
  });
}

template <class Change>
bool OperationApplier::ChangeObject(const Common::Guid& id, Change&& change) {
  if (!writer_.Read(id, data_)) throw MakeNoObjectError(id);
  try {
    Por::OwnedUnit object = Por::Util::ReadUnitBlob(data_, factory_);
    if (object == nullptr) throw Refuse(u"There is nothing in it.", 100);
    object = change(std::move(object));
    if (GetId(*object) != id) throw Refuse(u"It would get another key.", 110);
    return writer_.Put(*object) != SqliteStoreWriter::Outcome::kUnchanged;
  } catch (const Common::Error& reason) {
    Common::Error error(reason.GetCode(),
                        (u"Object " + GetIdText(id) + u" can't be changed.").c_str(),
                        kSource.At("ChangeObject", 120));
    error.SetReason(reason);
    throw error;
  }
}

}  // namespace Platform::Store
