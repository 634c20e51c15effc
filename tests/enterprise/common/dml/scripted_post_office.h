#pragma once

#include <functional>
#include <memory>
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

// Notes kinds and numbers, for example "+1*12-1".
class ChangeReader final : public SubscriptionReader {
 public:
  void OnCreated(const Por::View::Unit& object) override {
    read.append("+").append(Number(object));
    if (in_created) in_created(Por::Util::GetValue<unsigned int>(object));
  }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit& diff) override {
    read.append("*").append(Number(key)).append(Number(diff));
  }
  void OnDeleted(const Por::View::Unit& key) override { read.append("-").append(Number(key)); }

  std::string read;
  std::function<void(unsigned int)> in_created;

 private:
  static std::string Number(const Por::View::Unit& unit) {
    return std::to_string(Por::Util::GetValue<unsigned int>(unit));
  }
};

inline Por::SharedUnit MakeUnit(unsigned int value) {
  return Por::GetStaticUnitFactory()->CreateDWord(value);
}

}  // namespace Dml
