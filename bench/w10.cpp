// Records of one transmission on their way through the dispatcher into the caches of its channels,
// and out of them to readers: w10 [channels]
//
// Batches of 1000 records of 16 channels, in runs of 1 to 15, 8 on average; a record is a number
// with the trait that names its channel, and a reader takes its value. `one-thread`: a batch in,
// then each channel read that got something. `waiting`: a reader waits on each channel, gets each
// run at once and waits again. With an argument also the cost of a record beside the number of
// channels: in deliveries of one run of 8 or of one record, and in batches of 1000 runs of one
// record. Prints "name value unit" lines.

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

void MeasureChannels(std::uint32_t channels, std::size_t delivery_runs, std::size_t run_size,
                     const char* name) {
  constexpr std::size_t kRecords = 16000;
  std::mt19937 random(10);
  std::vector<Batch> batches;
  std::uint32_t last = 0;
  for (std::size_t made = 0; made < kRecords; made += delivery_runs * run_size) {
    std::vector<Run> runs;
    while (runs.size() < delivery_runs) {
      const std::uint32_t channel = 1 + static_cast<std::uint32_t>(random() % channels);
      if (channel == last && channels > 1) continue;
      runs.push_back({last = channel, run_size});
    }
    batches.push_back(MakeBatch(runs));
  }
  RemoteSubscriptionDispatcher dispatcher(std::make_shared<NoAccessPoint>());
  const auto readers = Follow(dispatcher, channels, true);
  std::size_t records = 0;
  const double seconds = Bench::MeasureSeconds(
      [&] {
        for (const Batch& batch : batches) dispatcher.Consume(batch);
        records += kRecords;
      },
      0.5);
  Bench::Report(std::string("objprobe-") + name + "-" + std::to_string(channels) + "-channels",
                seconds / kRecords * 1e9, "ns/record");
  for (const auto& reader : readers) reader->Stop();
  Check(readers, records);
}

}  // namespace

int main(int argc, char**) {
  Bench::KeepHeap();
  MeasureScript();
  if (argc < 2) return 0;
  for (const std::uint32_t channels : {1U, 10U, 100U, 1000U}) {
    MeasureChannels(channels, 1, 8, "delivery-of-8");
  }
  for (const std::uint32_t channels : {1U, 10U, 100U, 1000U}) {
    MeasureChannels(channels, 1, 1, "delivery-of-1");
  }
  for (const std::uint32_t channels : {10U, 100U, 1000U}) {
    MeasureChannels(channels, 1000, 1, "batch-of-single-records");
  }
}
