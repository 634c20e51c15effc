// The cost of a synchronous step of the job machinery, its sequences and cycles, of a completion on
// another thread, and of single primitives and error values. No arguments; prints "name value unit"
// lines.

#include <memory>
#include <thread>
#include <vector>

#include "bench/workload.h"
#include "core/common/error.h"
#include "core/common/message_table.h"
#include "core/common/unix/event.h"
#include "core/common/unix/mutex.h"
#include "core/common/unix/static_mutex.h"
#include "enterprise/common/async/action_adaptor.h"
#include "enterprise/common/async/action_sequence.h"
#include "enterprise/common/async/async_error.h"
#include "enterprise/common/async/cyclic_runner.h"
#include "enterprise/common/async/job_control.h"
#include "enterprise/common/async/service.h"
#include "enterprise/common/async/waiting_handler.h"

namespace {

using Async::ActionHandler;
using Async::Job;

constexpr Common::SourceFile kSource{"bench/w6"};
constexpr int kSteps = 100000;
constexpr int kTurns = 5000;

// Steps are counted here, in a way that the compiler can't fold.
volatile int counter = 0;

template <class Function>
void ReportEach(const char* name, Function function, const char* unit = "ns/step") {
  const double seconds = Bench::MeasureSeconds(
      [&] {
        for (int i = 0; i < kSteps; ++i) function();
      },
      0.3);
  Bench::Report(name, seconds / kSteps * 1e9, unit);
}

class Count : public ActionHandler {
 public:
  void Completed(Common::Error) override { counter = counter + 1; }
};

class NullJob : public Async::BaseJob {
 public:
  void Cancel() override {}
};

void MeasureRuns() {
  Count count;
  Async::JobControl control;
  Async::ActionRefAdaptor plain([](ActionHandler& handler) -> std::shared_ptr<Job> {
    handler.Completed({});
    return nullptr;
  });
  ReportEach("objprobe-job-control-run", [&] { control.Run(plain, count, nullptr); });
  Async::ActionRefAdaptor with_job([](ActionHandler& handler) -> std::shared_ptr<Job> {
    auto job = std::make_shared<NullJob>();
    handler.Completed({});
    return job;
  });
  ReportEach("objprobe-job-control-run-and-job", [&] { control.Run(with_job, count, nullptr); });
  Async::ActionRefAdaptor fails([](ActionHandler& handler) -> std::shared_ptr<Job> {
    handler.Completed(Async::canceled_error.Get());
    return nullptr;
  });
  ReportEach("objprobe-job-control-run-failing", [&] { control.Run(fails, count, nullptr); });
}

// A sequence of kSteps actions that all end on this thread.
void MeasureSequence(const char* name) {
  Count count;
  Async::ActionSequence sequence;
  const std::shared_ptr<Async::Action> step =
      Async::MakeAction([](ActionHandler& handler) -> std::shared_ptr<Job> {
        counter = counter + 1;
        handler.Completed({});
        return nullptr;
      });
  for (int i = 0; i < kSteps; ++i) sequence.Execute(step);
  const double steps = Bench::MeasureSeconds([&] { sequence.Perform(count); }, 0.3);
  Bench::Report(name, steps / kSteps * 1e9, "ns/step");
}

// As many passes of a cycle, without an async service all on this thread.
void MeasureCycle() {
  Count count;
  const double passes = Bench::MeasureSeconds(
      [&] {
        int left = kSteps;
        const auto job = Async::RunCyclic(
            Async::MakeAction([&left](ActionHandler& handler) -> std::shared_ptr<Job> {
              counter = counter + 1;
              handler.Completed(--left != 0 ? Common::Error() : Async::canceled_error.Get());
              return nullptr;
            }),
            count);
      },
      0.3);
  Bench::Report("objprobe-cycle", passes / kSteps * 1e9, "ns/step");
}

// Two threads wake each other in turn through `Device`, which has a Signal and a Wait per side.
template <class Device>
void ReportPingPong(const char* name) {
  Device device;
  std::vector<double> times;
  for (int repeat = 0; repeat < 5; ++repeat) {
    const double start = Bench::Now();
    std::thread other([&] {
      for (int i = 0; i < kTurns; ++i) {
        device.Wait(1);
        device.Signal(0);
      }
    });
    for (int i = 0; i < kTurns; ++i) {
      device.Signal(1);
      device.Wait(0);
    }
    other.join();
    times.push_back((Bench::Now() - start) / kTurns / 2 * 1e9);
  }
  Bench::Report(name, Bench::TakeMedian(times), "ns/way");
}

class Handlers {
 public:
  void Signal(int side) { sides_[side].Completed({}); }
  void Wait(int side) { sides_[side].Wait(nullptr); }

 private:
  Async::WaitingHandler sides_[2]{Async::WaitingHandler(true), Async::WaitingHandler(true)};
};

class Events {
 public:
  void Signal(int side) { sides_[side].Set(); }
  void Wait(int side) { sides_[side].Wait(); }

 private:
  Common::Event sides_[2]{{false, false}, {false, false}};
};

Common::StaticMutex static_mutex;

void MeasurePrimitives() {
  Common::Event event(false, false);
  ReportEach("objprobe-event-set-wait", [&] {
    event.Set();
    event.Wait();
  });
  ReportEach("objprobe-static-mutex", [&] {
    static_mutex.Lock();
    static_mutex.Unlock();
  });
  Common::Mutex mutex;
  ReportEach("objprobe-mutex", [&] {
    mutex.Lock();
    mutex.Unlock();
  });
}

Common::Error MakeError() {
  return Common::MakeTracedError(Async::kCanceledCode,
                                 Common::GetMessageText(Common::MessageRow::AsyncCanceled),
                                 kSource.At("MakeError", 10));
}

void MeasureErrors() {
  ReportEach("objprobe-error-make", [] {
    const Common::Error error = MakeError();
    Bench::Keep(error);
  });
  ReportEach("objprobe-error-make-own-text", [] {
    const Common::Error error(1, u"The operation was not carried out.", kSource.At("Own", 20));
    Bench::Keep(error);
  });
  const Common::Error made = MakeError();
  ReportEach("objprobe-error-copy", [&] {
    const Common::Error copy = made;
    Bench::Keep(copy);
  });
  ReportEach("objprobe-error-throw-catch", [] {
    try {
      throw MakeError();
    } catch (const Common::Error& error) {
      Bench::Keep(error);
    }
  });
}

}  // namespace

int main() {
  Bench::KeepHeap();
  // The library now knows that there are threads and uses its atomic paths.
  std::thread([] {}).join();
  // All but the one line as in a process without an async service.
  const Async::ServiceProvider provider = Async::SetServiceProvider(nullptr);
  MeasureRuns();
  MeasureSequence("objprobe-sequence");
  Async::SetServiceProvider(provider);
  MeasureSequence("objprobe-sequence-with-service");
  Async::SetServiceProvider(nullptr);
  MeasureCycle();
  ReportPingPong<Handlers>("objprobe-pingpong-waiting-handler");
  ReportPingPong<Events>("objprobe-pingpong-event");
  MeasurePrimitives();
  MeasureErrors();
}
