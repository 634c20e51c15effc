#pragma once

#include "core/common/guid.h"
#include "core/common/string.h"
#include "enterprise/common/por/unit.h"

// The identification of an object. An object has no fixed identity field: its key is a unit inside
// it, found by the trait "PrimaryKey", and is reduced to 128 bits.

namespace Dml {

// The key nearest to the root, the first in order at that depth: the value of the "PrimaryKey"
// trait, or the unit that carries the trait when that value is nil. Borrowed from `object`.
// Throws Common::Error 0xFC000A when there is none.
const Por::View::Unit& FindObjectKey(const Por::View::Unit& object);

// A GUID without a "PrimaryKey" or "ForeignKey" trait is itself. Any other key is the digest of its
// stream, taken without a property "DmlTimeStamp" of the key itself.
Common::Guid GetKeyGuid(const Por::View::Unit& key);

// The text form of the GUID of the object's key. Throws as FindObjectKey.
Common::String GetObjectKey(const Por::View::Unit& object);

// The same of a unit that already is a key; nothing is searched.
Common::String GetObjectKeyFromKey(const Por::View::Unit& key);

}  // namespace Dml
