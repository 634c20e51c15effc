#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_value_access.h"

namespace Dml {

class TestJob final : public Async::BaseJob {
 public:
  void Cancel() override { ++cancels; }
  int cancels = 0;
};

// Keeps what it is told, then does something.
class Told final : public Async::ActionHandler {
 public:
  void Completed(Common::Error result) override {
    results.push_back(std::move(result));
    if (then) then();
  }
  std::vector<Common::Error> results;
  std::function<void()> then;
};

// Runs what the test says and keeps what it was asked for.
class ScriptedPostOffice : public PostOffice {
 public:
  using Work = std::function<std::shared_ptr<Async::Job>(std::shared_ptr<ReportReader> reader,
                                                         Async::ActionHandler& handler)>;

  std::shared_ptr<Async::Job> Subscribe(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                        std::shared_ptr<ReportReader> reader,
                                        std::unique_ptr<Subscription>& subscription,
                                        Async::ActionHandler& handler) override {
    asked_subscription = &subscription;
    return Report(entry_point, spec, std::move(reader), handler);
  }
  std::shared_ptr<Async::Job> Report(const Core::EntryPoint& entry_point, const ViewSpec& spec,
                                     std::shared_ptr<ReportReader> reader,
                                     Async::ActionHandler& handler) override {
    asked_entry_point = entry_point;
    asked_spec = spec;
    return work(std::move(reader), handler);
  }

  Work work;
  Core::EntryPoint asked_entry_point;
  ViewSpec asked_spec;
  std::unique_ptr<Subscription>* asked_subscription = nullptr;
};

// Notes what it reads; raises after noting the marked one.
class NotingReader : public ReportReader {
 public:
  void Read(const Por::View::Unit& object) override {
    objects.push_back(&object);
    if (objects.size() == raises_at) throw Common::Error(0x1234, Common::LineTag{});
  }
  std::vector<const Por::View::Unit*> objects;
  std::size_t raises_at = 0;  // from 1
};

// Notes kinds and numbers, for example "+1*1,2-1", unless in_read raises.
class NotingChanges final : public SubscriptionReader {
 public:
  using SubscriptionReader::OnCreated;
  using SubscriptionReader::OnDeleted;
  using SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override { Note({"+", Number(object)}); }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    Note({"*", Number(key), ",", Number(diff)});
  }
  void OnDeleted(const Por::View::Unit& key) override { Note({"-", Number(key)}); }

  // What was read since the last time.
  std::string Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(read_, {});
  }

  std::function<void(const Por::View::Unit&)> in_read;

 private:
  std::string Number(const Por::View::Unit& unit) {
    if (in_read) in_read(unit);
    return std::to_string(Por::Util::GetValue<unsigned int>(unit));
  }
  void Note(std::initializer_list<std::string> texts) {
    const std::lock_guard lock(mutex_);
    for (const std::string& text : texts) read_ += text;
  }

  std::mutex mutex_;
  std::string read_;
};

inline Por::SharedUnit MakeUnit(unsigned int value) {
  return Por::GetStaticUnitFactory()->CreateDWord(value);
}

}  // namespace Dml
