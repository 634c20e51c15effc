#pragma once

#include <memory>

#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/ipc/client_library.h"

namespace Dml::Client {

// A post office that reads the objects of a service through its view manager.
//
// What it does depends on the version of that interface. With version 1 each subscription is a view
// of its own. With any other, 0 included, all subscriptions of a connection are channels of one
// transmission (remote_subscription_dispatcher.h), which starts with the first of them and makes
// its Subscribe, and those that come meanwhile, block for a round trip: so never subscribe in a
// reader, in a handler or elsewhere on a thread of the library, which would wait for itself. A
// transmission that has failed stays so.
//
// The service gets the caller's specification with other options: a copy of them, with
// "LimitOptions" 2000 (DWord) if they have none, and "EntryPoint", in place of one that they have:
// a composite of "ID" (QWord, the place's location), "File" (String) and "Line" (DWord). No options
// are an empty composite; options of another kind make Report and Subscribe throw Common::Error
// 0xFA000A, and nothing has been started then but possibly the transmission.
//
// The objects of a report and of the snapshot of a subscription come on the thread that completes
// the request, one after the other, before the subscription exists and the handler is told. Objects
// that a reply lacks or holds in bad form are traced as if the reader had raised and passed over.
// Without a reader nobody looks at the objects, and none is traced. A failure is told to the
// handler; that of a transmission within Subscribe, which returns no job then.
//
// The end of the post office ends its transmissions, whoever else refers to them, and waits for
// that. It must not come on a thread that calls a reader or handler of its own. All its jobs are
// gone by then; subscriptions should be.
//
// Asks the service for the version, which blocks; throws the failure of that unchanged. A null
// access point throws Common::Error 0xFC0017.
std::unique_ptr<PostOffice> CreateRemoteViewProvider(
    std::shared_ptr<Binding::AccessPoint> access_point);

}  // namespace Dml::Client
