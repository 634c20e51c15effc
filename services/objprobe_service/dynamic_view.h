#pragma once

#include <memory>

#include "enterprise/common/dml/reader.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/pull_timer.h"
#include "services/objprobe_service/view_budget.h"

namespace ObjProbeService {

// A view of its own: nothing of it is kept for the client, which reads the changes of the store
// itself, pull by pull.
struct DynamicView {
  std::shared_ptr<Dml::Subscription> subscription;
  std::shared_ptr<ViewBudget::Share> share;
};

// Answers AcquireUpdates: with the next changes of the view, with none when the time of `timer` has
// passed, with a failure when the view is closed, remembers more objects than it may or has another
// pull that waits. A cancel of the call ends the wait. The subscription isn't kept; the timer must
// outlive the call.
void PullView(std::shared_ptr<Platform::Ipc::ServerCall> call, const DynamicView& view,
              PullTimer& timer);

}  // namespace ObjProbeService
