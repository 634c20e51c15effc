// Records of one transmission on their way through the dispatcher into the caches of its channels,
// and out of them to readers: w10 [channels]
//
// Batches of 1000 records of 16 channels, in runs of 1 to 15, 8 on average; a record is a number
// with the trait that names its channel, and a reader takes its value. `one-thread`: a batch in,
// then each channel read that got something. `waiting`: a reader waits on each channel, gets each
// run at once and waits again. With an argument also the cost of a record beside the number of
// channels: in deliveries of one run of 8 or of one record, and in batches of 1000 runs of one
// record. Prints "name value unit" lines.

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench/workload.h"
#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/async/action.h"
#include "enterprise/common/dml/client/remote_subscription_dispatcher.h"
#include "enterprise/common/ipc/client_library.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_helpers.h"
#include "enterprise/common/por/unit_value_access.h"

namespace {

using Dml::Client::RemoteSubscriptionDispatcher;
using Dml::ViewManagement::ViewUpdate;
using Batch = std::vector<ViewUpdate>;

constexpr Common::SourceFile kSource{"bench/w10"};
constexpr std::size_t kBatchSize = 1000;
constexpr std::size_t kBatchCount = 16;
constexpr std::uint32_t kChannels = 16;

// There is no service: nothing is asked of it until the subscriptions say farewell.
class NoAccessPoint final : public Binding::AccessPoint {
 public:
  Common::Error CreateJob(std::unique_ptr<Binding::Request>,
                          std::unique_ptr<JobManagement::Job>&) override {
    return Common::Error(1, kSource.At("CreateJob", 10));
  }
  std::uint32_t GetConnectionKey() override { return 1; }
  Common::Error GetInterfaceVersion(std::uint32_t, std::uint32_t&, std::uint32_t&) override {
    return Common::Error(1, kSource.At("GetInterfaceVersion", 20));
  }
};

class SumReader final : public Dml::SubscriptionReader {
 public:
  using Dml::SubscriptionReader::OnCreated;
  using Dml::SubscriptionReader::OnDeleted;
  using Dml::SubscriptionReader::OnUpdated;
  void OnCreated(const Por::View::Unit& object) override { Take(object); }
  void OnUpdated(const Por::View::Unit& key, const Por::View::Unit&) override { Take(key); }
  void OnDeleted(const Por::View::Unit& key) override { Take(key); }

  std::size_t count = 0;
  std::uint64_t sum = 0;

 private:
  void Take(const Por::View::Unit& unit) {
    ++count;
    sum += Por::Util::GetValue<unsigned int>(unit);
  }
};

// A channel and its reader. One that waits reads again whenever it was told.
class Following final : public Async::ActionHandler {
 public:
  Following(RemoteSubscriptionDispatcher& dispatcher, std::uint32_t channel, bool waits)
      : waits_(waits), subscription_(dispatcher.CreateChannel(channel)) {
    if (waits) Read();
  }

  void Completed(Common::Error result) override {
    if (waits_ && !result.IsFailure()) Read();
  }
  void Read() { job_ = subscription_->Read(reader, *this); }
  void Stop() {
    waits_ = false;
    if (job_ != nullptr) job_->Cancel();
  }

  SumReader reader;

 private:
  bool waits_;
  std::shared_ptr<Async::Job> job_;
  const std::unique_ptr<Dml::Subscription> subscription_;
};

struct Run {
  std::uint32_t channel;
  std::size_t size;
};

ViewUpdate MakeRecord(std::uint32_t channel, unsigned int number) {
  const Por::Construction::UnitFactory& factory = *Por::GetStaticUnitFactory();
  const auto make = [&](unsigned int value) {
    Por::OwnedUnit unit = factory.CreateDWord(value);
    Por::Util::AddTrait(*unit, "ChannelID", factory.CreateDWord(channel), factory);
    return unit;
  };
  return {number % 3, make(number), make(1)};
}

Batch MakeBatch(const std::vector<Run>& runs) {
  Batch batch;
  for (const Run& run : runs) {
    for (std::size_t i = 0; i < run.size; ++i) {
      batch.push_back(MakeRecord(run.channel, static_cast<unsigned int>(batch.size())));
    }
  }
  return batch;
}

std::vector<std::unique_ptr<Following>> Follow(RemoteSubscriptionDispatcher& dispatcher,
                                               std::uint32_t channels, bool waits) {
  std::vector<std::unique_ptr<Following>> result;
  for (std::uint32_t i = 0; i < channels; ++i) {
    result.push_back(std::make_unique<Following>(dispatcher, i + 1, waits));
  }
  return result;
}

void Check(const std::vector<std::unique_ptr<Following>>& readers, std::size_t expected) {
  std::size_t count = 0;
  for (const auto& reader : readers) {
    count += reader->reader.count;
    Bench::Keep(reader->reader.sum);
  }
  if (count != expected) std::printf("# %zu records are missing\n", expected - count);
}

void MeasureScript() {
  std::mt19937 random(10);
  std::vector<Batch> batches;
  std::vector<std::vector<std::uint32_t>> named;  // the channels of each batch
  for (std::size_t i = 0; i < kBatchCount; ++i) {
    std::vector<Run> runs;
    std::vector<bool> is_named(kChannels);
    for (std::size_t left = kBatchSize; left > 0;) {
      const std::size_t size = std::min<std::size_t>(left, 1 + random() % 15);
      runs.push_back({1 + static_cast<std::uint32_t>(random() % kChannels), size});
      is_named[runs.back().channel - 1] = true;
      left -= size;
    }
    batches.push_back(MakeBatch(runs));
    named.emplace_back();
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
      if (is_named[channel]) named.back().push_back(channel);
    }
  }
  for (const bool waits : {false, true}) {
    RemoteSubscriptionDispatcher dispatcher(std::make_shared<NoAccessPoint>());
    const auto readers = Follow(dispatcher, kChannels, waits);
    std::size_t records = 0;
    const double seconds = Bench::MeasureSeconds(
        [&] {
          for (std::size_t i = 0; i < kBatchCount; ++i) {
            dispatcher.Consume(batches[i]);
            if (!waits) {
              for (const std::uint32_t channel : named[i]) readers[channel]->Read();
            }
            records += kBatchSize;
          }
        },
        1);
    Bench::Report(waits ? "objprobe-waiting:one-thread" : "objprobe:one-thread",
                  kBatchCount * kBatchSize / seconds / 1e6, "Mrecords/s");
    for (const auto& reader : readers) reader->Stop();
    Check(readers, records);
  }
}

double GetProcessorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Records of so many channels in deliveries of so many runs, each of another channel than the one
// before, and readers that wait.
class Traffic {
 public:
  Traffic(std::uint32_t channels, std::size_t delivery_runs, std::size_t run_size)
      : dispatcher_(std::make_shared<NoAccessPoint>()),
        readers_(Follow(dispatcher_, channels, true)) {
    std::mt19937 random(10);
    std::uint32_t last = 0;
    for (std::size_t made = 0; made < kRecords; made += delivery_runs * run_size) {
      std::vector<Run> runs;
      while (runs.size() < delivery_runs) {
        const std::uint32_t channel = 1 + static_cast<std::uint32_t>(random() % channels);
        if (channel == last && channels > 1) continue;
        runs.push_back({last = channel, run_size});
      }
      batches_.push_back(MakeBatch(runs));
    }
  }

  void Pass() {
    const double start = GetProcessorSeconds();
    for (const Batch& batch : batches_) dispatcher_.Consume(batch);
    times_.push_back(GetProcessorSeconds() - start);
  }
  void Report(const std::string& name) {
    for (const auto& reader : readers_) reader->Stop();
    Check(readers_, times_.size() * kRecords);
    Bench::Report(name + "-" + std::to_string(readers_.size()) + "-channels",
                  Bench::TakeMedian(times_) / kRecords * 1e9, "ns/record");
  }

 private:
  static constexpr std::size_t kRecords = 16000;

  RemoteSubscriptionDispatcher dispatcher_;
  std::vector<Batch> batches_;
  std::vector<double> times_;
  const std::vector<std::unique_ptr<Following>> readers_;
};

// Processor time, with all numbers of channels in turn.
void MeasureChannels(std::size_t delivery_runs, std::size_t run_size, const char* name) {
  constexpr int kPasses = 40;
  std::vector<std::unique_ptr<Traffic>> all;
  for (const std::uint32_t channels : {1U, 10U, 100U, 1000U}) {
    if (delivery_runs > 1 && channels == 1) continue;  // all would be one run
    all.push_back(std::make_unique<Traffic>(channels, delivery_runs, run_size));
  }
  for (int i = 0; i < kPasses; ++i) {
    for (const auto& traffic : all) traffic->Pass();
  }
  for (const auto& traffic : all) traffic->Report(std::string("objprobe-").append(name));
}

}  // namespace

int main(int argc, char**) {
  Bench::KeepHeap();
  MeasureScript();
  if (argc < 2) return 0;
  MeasureChannels(1, 8, "delivery-of-8");
  MeasureChannels(1, 1, "delivery-of-1");
  MeasureChannels(1000, 1, "batch-of-single-records");
}
