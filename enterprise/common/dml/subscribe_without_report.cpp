#include "enterprise/common/dml/subscribe_without_report.h"

#include <atomic>
#include <new>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/trace.h"
#include "core/common/unix/safe_assert.h"
#include "enterprise/common/async/action_sequence.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/dml/dml_codes.h"
#include "enterprise/common/dml/read_actions.h"
#include "enterprise/common/por/unit_operations.h"

namespace Dml {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/dml/subscribe_without_report"};

// Raised by nothing here; it only selects the level of the trace.
constexpr std::uint32_t kIgnoredCallbackCode = 0xF90017;

using Snapshot = std::vector<std::shared_ptr<Por::Construction::Unit>>;

void TraceReaderFailure(const Common::Error& error) {
  if (!error.IsFailure()) return;
  const bool expected = error.HoldsCode(Async::kCanceledCode) ||
                        error.HoldsCode(Async::kUnimportantCode) ||
                        error.HoldsCode(kIgnoredCallbackCode);
  Common::Trace(expected ? Common::kTraceDebug : Common::kTraceError, error);
}

// The post office's subscription behind its snapshot.
class DecoratedSubscription final : public Subscription, public Async::ActionHandler {
 public:
  DecoratedSubscription(std::unique_ptr<Subscription> base, Snapshot snapshot)
      : base_(std::move(base)), snapshot_(std::move(snapshot)) {}

  std::shared_ptr<Async::Job> Read(SubscriptionReader& reader,
                                   Async::ActionHandler& handler) override;
  // The end of a read. The handler may destroy this object.
  void Completed(Common::Error result) override {
    Async::ActionHandler* const handler = handler_.exchange(nullptr);
    SAFE_ASSERT(handler != nullptr && "A read has completed twice.");
    if (handler != nullptr) handler->Completed(std::move(result));
  }

 private:
  const std::unique_ptr<Subscription> base_;
  Snapshot snapshot_;  // empty after the first read; touched by the read that runs
  std::atomic<Async::ActionHandler*> handler_{nullptr};  // null: no read runs
};

std::shared_ptr<Async::Job> DecoratedSubscription::Read(SubscriptionReader& reader,
                                                        Async::ActionHandler& handler) {
  Async::ActionHandler* expected = nullptr;
  if (!handler_.compare_exchange_strong(expected, &handler)) {
    handler.Completed(Async::invalid_result_error.Get());
    return nullptr;
  }
  // Whoever throws from here on has started nothing and told nobody: the next read is free to come.
  struct Release {
    ~Release() {
      // One that has told its end all the same leaves a read that has begun since alone.
      if (handler != nullptr) handler->compare_exchange_strong(given, nullptr);
    }
    std::atomic<Async::ActionHandler*>* handler;
    Async::ActionHandler* given;
  } release{&handler_, &handler};
  if (snapshot_.empty()) {
    if (base_ != nullptr) {
      std::shared_ptr<Async::Job> job = base_->Read(reader, *this);
      release.handler = nullptr;
      return job;
    }
    release.handler = nullptr;
    Completed(Common::Error(kDisposedObjectCode,
                            Common::GetMessageText(Common::MessageRow::DmlDisposedObject),
                            kSource.At("Read", 100)));
    return nullptr;
  }
  for (const auto& unit : std::exchange(snapshot_, {})) {
    try {
      reader.OnCreated(*unit);
    } catch (const Common::Error& error) {
      TraceReaderFailure(error);
    }
  }
  release.handler = nullptr;
  Completed(Common::Error());
  return nullptr;
}

// Subscribes, keeping copies of the objects of the snapshot, and delivers a DecoratedSubscription.
class SubscribeWithoutReportJob final : public Async::BaseJob,
                                        public ReportReader,
                                        public Async::ActionHandler {
 public:
  SubscribeWithoutReportJob(const Por::Construction::UnitFactory& factory,
                            std::unique_ptr<Subscription>& subscription,
                            std::shared_ptr<Async::Action> next, Async::ActionHandler& handler)
      : factory_(&factory),
        subscription_(&subscription),
        next_(std::move(next)),
        handler_(&handler) {}

  void Run(const Core::EntryPoint& entry_point, PostOffice& office, const ViewSpec& spec) {
    Async::ActionSequence sequence;
    sequence.Execute(
        std::make_shared<Actions::Subscribe>(entry_point, spec, *this, base_subscription_, office));
    sequence.Execute(next_);
    control_.Run(sequence, *this, nullptr);
  }

  void Cancel() override { control_.Cancel(); }

  using ReportReader::Read;
  // The unit is valid during the call only.
  void Read(const Por::View::Unit& unit) override {
    snapshot_.push_back(Por::Util::CopyUnit(unit, *factory_));
  }

  // The end of the sequence. The handler may drop the last reference to this job.
  void Completed(Common::Error result) override {
    if (!result.IsFailure()) {
      if (base_subscription_ == nullptr) {
        Common::SafeAssert("BaseSubscription.get() != 0",
                           "enterprise/common/dml/subscribe_without_report", 140);
      }
      try {
        *subscription_ = std::make_unique<DecoratedSubscription>(std::move(base_subscription_),
                                                                 std::move(snapshot_));
      } catch (const std::bad_alloc&) {
        result = Common::Error::OutOfMemory();
      }
    }
    if (result.IsFailure()) {
      // Behind the call the post office may be gone, and this job may still be on its way out.
      base_subscription_.reset();
      snapshot_.clear();
    }
    handler_->Completed(std::move(result));
  }

 private:
  const Por::Construction::UnitFactory* const factory_;
  std::unique_ptr<Subscription>* const subscription_;
  const std::shared_ptr<Async::Action> next_;
  Async::ActionHandler* const handler_;
  Snapshot snapshot_;
  std::unique_ptr<Subscription> base_subscription_;
  Async::JobControl control_;
};

}  // namespace

std::shared_ptr<Async::Job> SubscribeWithoutReport(const Core::EntryPoint& entry_point,
                                                   PostOffice& office,
                                                   const Por::Construction::UnitFactory& factory,
                                                   const ViewSpec& spec,
                                                   std::unique_ptr<Subscription>& subscription,
                                                   std::shared_ptr<Async::Action> next,
                                                   Async::ActionHandler& handler) {
  const auto job =
      std::make_shared<SubscribeWithoutReportJob>(factory, subscription, std::move(next), handler);
  job->Run(entry_point, office, spec);
  return job;
}

std::shared_ptr<Async::Job> SubscribeWithoutReport(const Core::EntryPoint& entry_point,
                                                   PostOffice& office,
                                                   const Por::Construction::UnitFactory& factory,
                                                   const ViewSpec& spec,
                                                   std::unique_ptr<Subscription>& subscription,
                                                   Async::ActionHandler& handler) {
  return SubscribeWithoutReport(entry_point, office, factory, spec, subscription, nullptr, handler);
}

}  // namespace Dml
