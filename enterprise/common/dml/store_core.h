#pragma once

#include <memory>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/common/string.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/por/unit_factory.h"

// Port: what this program calls of the store core, and what the core calls back.

namespace Dml {

class DbConnectionString : public Common::NonCopyable {
 public:
  virtual ~DbConnectionString() = default;
  virtual Common::String GetText() const = 0;
};

// An object of the core that a customizer may wrap while the store is opened.
class CoreObject : public Common::NonCopyable {
 public:
  virtual ~CoreObject() = default;
};

// Called by the core while it opens the store and up to its close.
class StoreCustomizer : public Common::NonCopyable {
 public:
  virtual ~StoreCustomizer() = default;
  virtual std::unique_ptr<CoreObject> CustomizeStore(std::unique_ptr<CoreObject> object) = 0;
  virtual std::unique_ptr<DbConnectionString> ResolveConnectionString() = 0;
};

// An open store. Ended by DML_Delete only.
class CoreDispatcher : public Common::NonCopyable {
 public:
  // Throws Common::Error.
  virtual std::unique_ptr<PostOffice> CreatePostOffice() = 0;

 protected:
  virtual ~CoreDispatcher() = default;
};

}  // namespace Dml

// Opens the store behind `connection_string`. On failure sets `error`, leaves `*dispatcher` null.
// `customizer` and `factory` are borrowed until DML_Delete has returned.
void DML_Create(const Common::String& connection_string, Dml::StoreCustomizer* customizer,
                Por::Construction::UnitFactory* factory, Dml::CoreDispatcher** dispatcher,
                Common::Error& error);

// Closes the store and sets `*dispatcher` to null. Sets `error` when closing fails.
void DML_Delete(Dml::CoreDispatcher** dispatcher, Common::Error& error);
