// The port of the store core for programs that link the client of the data management and open no
// store.

#include "enterprise/common/dml/store_core.h"

void DML_Create(const Common::String&, Dml::StoreCustomizer*, Por::Construction::UnitFactory*,
                Dml::CoreDispatcher**, Common::Error& error) {
  error = Common::Error(1, "No store is linked.", Common::LineTag{});
}

void DML_Delete(Dml::CoreDispatcher**, Common::Error&) {}
