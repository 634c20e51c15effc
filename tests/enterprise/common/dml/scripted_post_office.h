#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "enterprise/common/async/job.h"
#include "enterprise/common/dml/post_office.h"
#include "enterprise/common/por/unit_factory.h"

namespace Dml {

class TestJob final : public Async::BaseJob {
 public:
  void Cancel() override { ++cancels; }
  int cancels = 0;
};

// Runs what the test says and keeps what it was asked for.
class ScriptedPostOffice final : public PostOffice {
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

inline Por::SharedUnit MakeUnit(unsigned int value) {
  return Por::GetStaticUnitFactory()->CreateDWord(value);
}

}  // namespace Dml
