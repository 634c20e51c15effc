#pragma once

#include <memory>

#include "core/common/non_copyable.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/por/unit.h"

namespace Por {
class ConstUnit;
}

namespace Dml {

// Gets the objects of a report. Called on any thread of the machinery below, one call at a time. A
// Common::Error out of a call is traced and dropped, and the next object follows.
class ReportReader : public Common::NonCopyable {
 public:
  virtual ~ReportReader() = default;
  // `object` is valid during the call only.
  virtual void Read(const Por::View::Unit& object) = 0;
  // Reads the unit at a place, which is kept alive meanwhile. Nothing there throws Common::Error
  // 0xFA0001. Readers make it visible beside their own Read.
  virtual void Read(const Por::ConstUnit& object);
};

// Gets the changes of a subscription, under the same rules, places included.
class SubscriptionReader : public Common::NonCopyable {
 public:
  virtual ~SubscriptionReader() = default;
  virtual void OnCreated(const Por::View::Unit& object) = 0;
  virtual void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) = 0;
  virtual void OnDeleted(const Por::View::Unit& key) = 0;
  virtual void OnCreated(const Por::ConstUnit& object);
  virtual void OnUpdated(const Por::ConstUnit& key, const Por::ConstUnit& diff);
  virtual void OnDeleted(const Por::ConstUnit& key);
};

// A running subscription. One Read delivers one batch of events to the reader and then tells the
// handler; to follow the subscription, repeat it after its completion. The job may be null.
class Subscription : public Common::NonCopyable {
 public:
  virtual ~Subscription() = default;
  virtual std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                           Async::ActionHandler& handler) = 0;
};

}  // namespace Dml
