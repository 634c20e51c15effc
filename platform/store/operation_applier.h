#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/common/guid.h"
#include "core/common/non_copyable.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/unit_factory.h"
#include "platform/store/sqlite_store_writer.h"

namespace Platform::Store {

// Code of an operation that can't be carried out for a reason of its own: it is none that is known,
// it has a property that its class hasn't, an object is there or isn't, an object would get another
// key.
inline constexpr std::uint32_t kOperationRefusedCode = 0xFC0001;

// What came of one operation.
struct OperationOutcome {
  std::string place;   // from 1; "3.1" is the first operation of the batch that is the third
  std::string name;    // of the class, without its namespaces
  std::string result;  // "created", "3 updated, 1 unchanged"; docs/operations.md has them all
  std::string object;  // the identification; empty for an operation that names no object
};

// Carries out operations (enterprise/common/dml/operation.h) on a store. docs/operations.md says
// what each of them means.
class OperationApplier : public Common::NonCopyable {
 public:
  // Between Begin and Commit of the writer. Both are borrowed.
  OperationApplier(SqliteStoreWriter& writer, const Por::Construction::UnitFactory& factory)
      : writer_(writer), factory_(factory) {}

  // Carries out the operation that `root` is, or those of the array that it is, in order. Throws
  // Common::Error with the operation's place, its code that of the reason behind it; then the
  // changes since Begin are incomplete and must be dropped. Reasons, beside those of units and of
  // the store: 0xFC0001 as above, 0xFC0031 for a property that isn't set, 0xFC000A for an object
  // without a key.
  void Apply(const Por::View::Unit& root);

  // Those of all operations so far, a batch before what is in it.
  const std::vector<OperationOutcome>& GetOutcomes() const { return outcomes_; }

 private:
  struct Class;  // one of operations
  enum class Existing { kRefuse, kKeep, kUpdate, kConsolidate };
  enum class Missing { kCreate, kIgnore };

  static const Class& GetClass(const Por::View::Unit& operation);

  void ApplyAll(const Por::View::Unit& operations, const std::string& batch);
  void ApplyOne(const Por::View::Unit& operation, const std::string& place);

  // Each carries out the operations of one class.
  template <Existing kExisting, Missing kMissing>
  void Store(const Por::View::Unit& operation, OperationOutcome& outcome);
  void Update(const Por::View::Unit& operation, OperationOutcome& outcome);
  void Delete(const Por::View::Unit& operation, OperationOutcome& outcome);
  void UpdateByPattern(const Por::View::Unit& operation, OperationOutcome& outcome);
  void DeleteByPattern(const Por::View::Unit& operation, OperationOutcome& outcome);

  // The objects that match, as many as `options` allow.
  std::vector<Common::Guid> Match(const Por::View::Unit& pattern, const Por::View::Unit* options);
  // False if that changes nothing.
  bool Patch(const Common::Guid& id, const Por::View::Unit& patch);
  bool Consolidate(const Common::Guid& id, const Por::View::Unit& object);
  template <class Change>
  bool ChangeObject(const Common::Guid& id, Change&& change);

  SqliteStoreWriter& writer_;
  const Por::Construction::UnitFactory& factory_;
  std::vector<OperationOutcome> outcomes_;
  std::vector<unsigned char> data_;  // kept between calls
};

}  // namespace Platform::Store
