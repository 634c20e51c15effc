#pragma once

#include <memory>
#include <optional>

#include "platform/store/change_follower.h"
#include "platform/store/report_job.h"

namespace Platform::Store {

// A report that goes on as a subscription: the changes that this delivers are those behind the
// moment which the report has seen.
class SubscribeJob final : public ReportJob {
 public:
  // As ReportJob. `subscription` is borrowed until the handler is told, and filled on success.
  SubscribeJob(std::shared_ptr<ChangeFollower> follower, std::shared_ptr<const ObjectStore> store,
               Dml::ViewSpec spec, std::optional<unsigned int> limit,
               std::shared_ptr<Dml::ReportReader> reader,
               std::unique_ptr<Dml::Subscription>& subscription, Async::ActionHandler& handler,
               const Por::Construction::UnitFactory& factory);

 private:
  void OnRead(const StoredObject& object) override { filter_.AddMember(object.number); }
  void OnAllRead(const ObjectCursor& cursor) override;

  std::shared_ptr<ChangeFollower> follower_;
  ViewFilter filter_;
  std::unique_ptr<Dml::Subscription>* const subscription_;
};

}  // namespace Platform::Store
