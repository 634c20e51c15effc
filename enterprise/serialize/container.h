#pragma once

#include "core/common/non_copyable.h"
#include "enterprise/serialize/serializer.h"

namespace Serialization {

// A cursor over a container that is being written.
class ContainerIterator : public Common::NonCopyable {
 public:
  virtual ~ContainerIterator() = default;
  virtual bool IsAtEnd() const = 0;
  // Not at the end.
  virtual void Next() = 0;
  // Writes the current element, with the tags around it. Not at the end.
  virtual void WriteCurrent(Serializer& serializer) = 0;
};

// Offered by serializers that have a form of their own for containers.
class ContainerAwareSerializer {
 public:
  static constexpr char kInterfaceName[] = "PN13Serialization24ContainerAwareSerializerE";

  // Writes what is left, as the element `meta`. Without a name it goes into the open element.
  virtual void WriteContainer(const MetaInfo& meta, ContainerIterator& iterator) = 0;

 protected:
  ~ContainerAwareSerializer() = default;
};

}  // namespace Serialization
