#pragma once

#include <memory>

#include "core/common/string.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/store_core.h"

namespace Dml {

class ResolvedConnectionString final : public DbConnectionString {
 public:
  explicit ResolvedConnectionString(const Common::String& text) : text_(text) {}
  Common::String GetText() const override { return text_; }

 private:
  const Common::String text_;
};

// Owns an open store.
class ScopedCoreDispatcher : public Common::NonCopyable {
 public:
  virtual ~ScopedCoreDispatcher() = default;
  virtual CoreDispatcher* GetDispatcher() const = 0;
};

// The post office of the store behind a connection string, which goes to the store core as it is,
// also when it is empty. Owns the open store: destroy it when its jobs are gone. A failure to close
// the store is traced. Throws Common::Error: what the core says, unchanged.
std::unique_ptr<PostOffice> CreatePostOffice(const Common::String& connection_string);

}  // namespace Dml
