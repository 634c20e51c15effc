#pragma once

#include <utility>

#include "core/common/non_copyable.h"
#include "core/common/trace.h"
#include "enterprise/serialize/serializer.h"

namespace Serialization {

// An element that is open while this object lives. The constructor throws what BeginElement throws.
// Nothing leaves the destructor, which also runs while another failure is on its way: an error of
// EndElement is traced.
template <class Coder>
class ElementScope : public Common::NonCopyable {
 public:
  // Borrows `coder`.
  ElementScope(Coder& coder, MetaInfo meta) : coder_(&coder), meta_(std::move(meta)) {
    coder_->BeginElement(meta_);
  }
  ~ElementScope() {
    if (coder_ == nullptr) return;
    try {
      coder_->EndElement(meta_);
    } catch (const Common::Error& error) {
      Common::Trace(Common::kTraceError, error);
    } catch (...) {
      // Nothing else is thrown here but for want of memory.
      Common::Trace(Common::kTraceError, Common::Error::OutOfMemory());
    }
  }

  // Leaves the element open.
  void Disarm() noexcept { coder_ = nullptr; }

 private:
  Coder* coder_;
  const MetaInfo meta_;
};

using ElementWriter = ElementScope<Serializer>;
using ElementReader = ElementScope<Deserializer>;

// Sets the version of what is being written while it lives, where that is another one.
class VersionScope : public Common::NonCopyable {
 public:
  // Borrows `serializer`.
  VersionScope(Serializer& serializer, unsigned long long version)
      : serializer_(serializer), former_(serializer.GetSubjectVersion()), version_(version) {
    if (IsChange()) serializer_.SetSubjectVersion(version_);
  }
  ~VersionScope() {
    if (IsChange()) serializer_.SetSubjectVersion(former_);
  }

  bool IsChange() const { return former_ != version_; }
  // The version that the element of such a record tells: none where it is in force anyhow.
  unsigned long long GetElementVersion() const { return IsChange() ? version_ : 0; }

 private:
  Serializer& serializer_;
  const unsigned long long former_;
  const unsigned long long version_;
};

}  // namespace Serialization
