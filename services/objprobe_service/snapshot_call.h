#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/dml/reader.h"
#include "platform/ipc/server.h"
#include "services/objprobe_service/reply_writer.h"
#include "services/objprobe_service/view_budget.h"
#include "services/objprobe_service/view_request.h"

namespace ObjProbeService {

// A call that is answered with a snapshot: the objects of a view are read in the store one by one
// and go straight into the reply. OpenStaticView; and with a subscription behind the snapshot
// OpenDynamicView and AddInterest.
//
// A cancel of the call, or the loss of its connection, ends the reading. The call keeps itself
// alive until it is answered.
class SnapshotCall : public Dml::ReportReader,
                     private Async::ActionHandler,
                     public std::enable_shared_from_this<SnapshotCall> {
 public:
  // What is done with the end, once, before the client is told: gets the result and, where that is
  // success and the call is one that subscribes, the subscription. Gives the result that the client
  // is told. Throws nothing.
  using End =
      std::function<Common::Error(Common::Error result, std::unique_ptr<Dml::Subscription>)>;

  // Takes back what `End` has made: the client was not told of it. Throws nothing.
  using Undo = std::function<void()>;

  // `reply` stands where the items follow. One of more than `max_bytes` is a failure, and so are
  // more objects than `share` takes, which may be null.
  SnapshotCall(std::shared_ptr<Platform::Ipc::ServerCall> call, ViewMethod method,
               Dml::ViewSpec spec, std::unique_ptr<ReplyWriter> reply, std::size_t max_bytes,
               std::shared_ptr<ViewBudget::Share> share, End end, Undo undo);

  // Once: reads the objects of `office`, which must outlive that. Returns at once; throws nothing.
  void Start(Dml::PostOffice& office);
  // Instead of Start, or at any time behind it.
  void Cancel();

 private:
  using ReportReader::Read;
  void Read(const Por::View::Unit& object) override;
  void Completed(Common::Error result) override;
  // Before `End`, so that what it makes isn't lost for a reply that can't go.
  Common::Error FinishReply();

  const std::shared_ptr<Platform::Ipc::ServerCall> call_;
  const ViewMethod method_;
  Dml::ViewSpec spec_;
  // Of the reading thread, then of Completed.
  std::unique_ptr<ReplyWriter> reply_;
  const std::size_t max_bytes_;
  const std::shared_ptr<ViewBudget::Share> share_;
  End end_;
  Undo undo_;
  EncodedUnit object_;     // its memory serves one object after the other
  Common::Error failure_;  // of the reply
  std::unique_ptr<Dml::Subscription> subscription_;

  std::mutex mutex_;                    // guards the fields below
  std::shared_ptr<SnapshotCall> self_;  // while the store uses this object
  std::shared_ptr<Async::Job> job_;
  bool is_cancelled_ = false;
  bool is_ended_ = false;
};

}  // namespace ObjProbeService
