#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "enterprise/common/dml/client/update_cache_inl.h"
#include "tests/enterprise/common/async/model_atomics.h"
#include "tests/enterprise/common/dml/client/client_support.h"

namespace Dml::Client {
namespace {

using namespace Testing;
using Async::Testing::Explorer;
using Async::Testing::MixAll;
using Async::Testing::ModelAtomics;
using Async::Testing::ModelObject;

struct CacheAtomics : ModelAtomics {
  // Under a lock the exchange is no point of its own: what else the section touches is seen by no
  // other thread before its end, so it all happens at the exchange.
  template <class T>
  class Pointer : ModelObject {
   public:
    explicit Pointer(T* value) : value_(value) {}

    T* exchange(T* value) {
      if (locks_held == 0) Enter();
      T* const old = std::exchange(value_, value);
      NoteWrite();
      return old;
    }

   private:
    T* value_;
  };
};

using ModelCache = BasicInMemoryUpdateCache<CacheAtomics>;

constexpr std::uint32_t kFailed = 0x82;

struct Situation {
  int reads = 2;
  int batches = 1;  // of two records each
  bool fails = false;
  int cancels = 0;  // threads
};

// Thread 0 reads, the others deliver, fail, and cancel the read that waits. The handler reads
// again, on whatever thread it is told, and at the last end drops the cache.
class CacheScenario : public Async::Testing::ModelScenario,
                      public SubscriptionReader,
                      public Async::ActionHandler {
 public:
  static constexpr std::size_t kFewestSchedules = 5;

  explicit CacheScenario(const Situation& situation) : situation_(situation) {}

  std::vector<std::function<void()>> Threads() override {
    std::vector<std::function<void()>> threads = {[this] { Read(); }, [this] { DeliverAll(); }};
    if (situation_.fails) threads.push_back([this] { FailOnce(); });
    threads.resize(threads.size() + static_cast<std::size_t>(situation_.cancels),
                   [this] { CancelOnce(); });
    return threads;
  }

  std::uint64_t Snapshot() const override {
    return MixAll(ModelObject::SnapshotAll(),
                  {reads_, told_, reading_, read_, produced_, canceled_, failed_, refused_,
                   job_ != nullptr, cache_ != nullptr});
  }

  void Check() override {
    if (reading_ != 0) {
      // Whoever still waits has missed nothing.
      Expect(read_ == produced_, "a reader that waits has read everything");
      Expect(job_ != nullptr, "a reader that waits has a job");
      draining_ = true;
      job_->Cancel();
    }
    Expect(told_ == reads_, "each read is told once");
    Expect(canceled_ <= situation_.cancels + 1, "one cancel ends one read");
    Expect(failed_ <= 1 || situation_.fails, "nothing fails by itself");
    if (cache_ == nullptr) return;
    // What is left, behind a delivery that takes a cancelled job away.
    const std::shared_ptr<ModelCache> cache = cache_;
    cache->Consume({Created(static_cast<unsigned int>(++produced_))});
    ++reads_;
    reading_ = 1;
    draining_ = true;
    cache->CheckOut(*this, *this);
    Expect(read_ == produced_, "no record is lost");
  }

  // Thread 0, and those that tell
  void Read() {
    const int number = ++reads_;
    reading_ = 1;
    const std::shared_ptr<ModelCache> cache = cache_;
    std::shared_ptr<Async::Job> job = cache->CheckOut(*this, *this);
    // Told meanwhile, the handler may have read again.
    const bool is_last = job != nullptr && number == reads_;
    Explorer().Remember(is_last);
    if (is_last) job_ = std::move(job);
  }

  // Thread 1
  void DeliverAll() {
    for (int batch = 0; batch < situation_.batches; ++batch) {
      Explorer().Point();
      const std::shared_ptr<ModelCache> cache = cache_;
      Explorer().Remember(cache != nullptr);
      if (cache == nullptr) return;
      std::vector<ViewUpdate> records;
      for (int i = 0; i < 2; ++i) {
        records.push_back(Created(static_cast<unsigned int>(++produced_)));
      }
      cache->Take(records);
    }
  }

  void FailOnce() {
    Explorer().Point();
    const std::shared_ptr<ModelCache> cache = cache_;
    Explorer().Remember(cache != nullptr);
    if (cache != nullptr) cache->Fail(Failure(kFailed));
  }

  void CancelOnce() {
    Explorer().Point();
    const std::shared_ptr<Async::Job> job = job_;
    Explorer().Remember(job != nullptr);
    if (job != nullptr) job->Cancel();
  }

  // SubscriptionReader
  void OnCreated(const Por::View::Unit& object) override {
    probe_.fetch_add(1);  // another thread may come in: no lock is held
    Expect(reading_ == 1, "no reader is called behind the end of its read");
    Expect(Por::Util::GetValue<unsigned int>(object) == static_cast<unsigned int>(++read_),
           "each record is read once, in order");
  }
  void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override {}
  void OnDeleted(const Por::View::Unit&) override {}

  // ActionHandler
  void Completed(Common::Error result) override {
    probe_.fetch_add(1);
    Expect(reading_ == 1, "a read is told once");
    reading_ = 0;
    ++told_;
    canceled_ += result.HoldsCode(Async::kCanceledCode);
    failed_ += result.GetCode() == kFailed;
    refused_ += result.GetCode() == 0xFC000C;
    if (draining_) return;
    if (reads_ < situation_.reads) {
      Read();
    } else if (!situation_.fails && situation_.cancels == 0) {
      cache_ = nullptr;
    }
  }

 private:
  const Situation situation_;
  std::shared_ptr<ModelCache> cache_ = std::make_shared<ModelCache>();
  std::shared_ptr<Async::Job> job_;  // of the last read that waits
  ModelAtomics::Counter probe_{0};
  int reads_ = 0;
  int told_ = 0;
  int reading_ = 0;
  int read_ = 0;
  int produced_ = 0;
  int canceled_ = 0;
  int failed_ = 0;
  int refused_ = 0;
  bool draining_ = false;
};

TEST(UpdateCacheInterleavings, DeliveriesAndReads) {
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{2, 2, false, 0}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{3, 2, false, 0}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{3, 3, false, 0}), "");
}

TEST(UpdateCacheInterleavings, CancelsOfAWaitingRead) {
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{1, 1, false, 2}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{2, 2, false, 1}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{3, 2, false, 1}), "");
}

TEST(UpdateCacheInterleavings, FailuresAmongDeliveriesAndCancels) {
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{2, 2, true, 0}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{2, 1, true, 1}), "");
  EXPECT_EQ(Async::Testing::Explore<CacheScenario>(Situation{3, 2, true, 1}, 3), "");
}

}  // namespace
}  // namespace Dml::Client
