#include "services/objprobe_service/snapshot_call.h"

#include <new>
#include <utility>

#include "core/common/entry_point.h"
#include "core/common/line_tag.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/por/unit_blob.h"
#include "services/objprobe_service/service_error.h"

namespace ObjProbeService {

namespace {

constexpr Common::SourceFile kSource{"services/objprobe_service/snapshot_call"};

}  // namespace

SnapshotCall::SnapshotCall(std::shared_ptr<Platform::Ipc::ServerCall> call, ViewMethod method,
                           Dml::ViewSpec spec, std::unique_ptr<ReplyWriter> reply,
                           std::size_t max_bytes, std::shared_ptr<ViewBudget::Share> share, End end,
                           Undo undo)
    : call_(std::move(call)),
      method_(method),
      spec_(std::move(spec)),
      reply_(std::move(reply)),
      max_bytes_(max_bytes),
      share_(std::move(share)),
      end_(std::move(end)),
      undo_(std::move(undo)) {}

void SnapshotCall::Start(Dml::PostOffice& office) {
  const std::shared_ptr<SnapshotCall> self = shared_from_this();
  bool is_cancelled = false;
  {
    const std::lock_guard lock(mutex_);
    self_ = self;
    is_cancelled = is_cancelled_;
  }
  if (is_cancelled) return Completed(Common::Error(Async::canceled_error.Get()));
  Common::Error failure;
  std::shared_ptr<Async::Job> job;
  try {
    const std::shared_ptr<Dml::ReportReader> reader = self;
    job = method_ == ViewMethod::kOpenStaticView
              ? office.Report(Core::EntryPoint(), spec_, reader, *this)
              : office.Subscribe(Core::EntryPoint(), spec_, reader, subscription_, *this);
  } catch (const Common::Error& error) {
    failure = error;
  } catch (const std::bad_alloc&) {
    failure = Common::Error::OutOfMemory();
  }
  if (failure.IsFailure()) return Completed(failure);
  {
    const std::lock_guard lock(mutex_);
    if (is_ended_) return;
    job_ = job;
    is_cancelled = is_cancelled_;
  }
  if (is_cancelled && job != nullptr) job->Cancel();
}

void SnapshotCall::Cancel() {
  std::shared_ptr<Async::Job> job;
  {
    const std::lock_guard lock(mutex_);
    is_cancelled_ = true;
    job = job_;
  }
  if (job != nullptr) job->Cancel();
}

// The store drops a Common::Error, and the object with it: the reply goes on without it. Anything
// else that is thrown ends the report, so that a reply written by half isn't sent.
void SnapshotCall::Read(const Por::View::Unit& object) {
  if (failure_.IsFailure()) return;
  Por::Util::WriteUnitBlob(object, object_.bytes);
  reply_->WriteItem(object_);
  if (share_ != nullptr && !share_->AddObject()) {
    failure_ = MakeServiceError(kTooManyViews, kSource.At("Read", 5));
  } else if (reply_->GetItemsSize() > max_bytes_) {
    failure_ = MakeServiceError(kReplyTooLarge, kSource.At("Read", 10));
  } else {
    return;
  }
  reply_.reset();
  Cancel();
}

void SnapshotCall::Completed(Common::Error result) {
  std::shared_ptr<SnapshotCall> self;
  std::shared_ptr<Async::Job> job;
  {
    const std::lock_guard lock(mutex_);
    self.swap(self_);
    job.swap(job_);
    is_ended_ = true;
    if (is_cancelled_ && !result.IsFailure()) result = Common::Error(Async::canceled_error.Get());
  }
  spec_ = {};
  if (failure_.IsFailure()) result = failure_;
  if (!result.IsFailure()) result = FinishReply();
  if (result.IsFailure()) subscription_.reset();
  result = std::exchange(end_, nullptr)(result, std::move(subscription_));
  const std::unique_ptr<ReplyWriter> reply = std::move(reply_);
  const Undo undo = std::exchange(undo_, nullptr);
  if (result.IsFailure()) return SendFailure(*call_, method_, result);
  if (!reply->Send(*call_)) undo();
}

Common::Error SnapshotCall::FinishReply() {
  try {
    if (reply_->Finish() <= max_bytes_) return {};
    return MakeServiceError(kReplyTooLarge, kSource.At("FinishReply", 20));
  } catch (const std::bad_alloc&) {
    return Common::Error::OutOfMemory();
  }
}

}  // namespace ObjProbeService
