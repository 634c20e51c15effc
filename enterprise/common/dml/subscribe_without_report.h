#pragma once

#include <memory>

#include "core/common/entry_point.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/por/unit_factory.h"

namespace Dml {

// Subscribes and turns the objects that exist at the start into ordinary created events: the first
// Read of the delivered subscription calls OnCreated for each of them, tells its handler success
// before it returns, and returns a null job. Later reads, and the first one if there were no
// objects, are those of the post office's subscription. A read while another runs is told
// 0xF90001; the running one is not disturbed. A Common::Error out of a reader is traced and
// dropped.
//
// `next`, if not null, is performed behind the subscribe; its failure is the failure of the whole.
// On success `subscription` is filled, before `handler` is told. The post office and the
// subscription place are borrowed until then, the factory too; the subscription may outlive all of
// them but the post office. Whoever calls holds the returned job until the handler has been told.
std::shared_ptr<Async::Job> SubscribeWithoutReport(const Core::EntryPoint& entry_point,
                                                   PostOffice& office,
                                                   const Por::Construction::UnitFactory& factory,
                                                   const ViewSpec& spec,
                                                   std::unique_ptr<Subscription>& subscription,
                                                   Async::ActionHandler& handler);
std::shared_ptr<Async::Job> SubscribeWithoutReport(const Core::EntryPoint& entry_point,
                                                   PostOffice& office,
                                                   const Por::Construction::UnitFactory& factory,
                                                   const ViewSpec& spec,
                                                   std::unique_ptr<Subscription>& subscription,
                                                   std::shared_ptr<Async::Action> next,
                                                   Async::ActionHandler& handler);

}  // namespace Dml
