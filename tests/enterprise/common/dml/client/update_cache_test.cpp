#include "enterprise/common/dml/client/update_cache.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "enterprise/common/async/async_error.h"
#include "tests/enterprise/common/dml/client/client_support.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/trace_recorder.h"

namespace Dml::Client {
namespace {

using namespace Testing;

constexpr std::uint32_t kOld = 0x81;
constexpr std::uint32_t kNew = 0x82;

std::string Code(const Common::Error& error) {
  std::ostringstream text;
  text << std::hex << error.GetCode();
  return text.str();
}

std::string Join(std::initializer_list<std::string> parts) {
  std::string result;
  for (const std::string& part : parts) result += part;
  return result;
}

// A cache in one of its states, with one reader for all reads.
class Cache {
 public:
  explicit Cache(const std::string& state)
      : cache_(state == "Failed" ? Failure(kOld) : Common::Error()) {
    if (state == "Holding" || state == "Draining") cache_.Consume({Created(1)});
    if (state == "Draining" || state == "Ended") cache_.Fail(Failure(kOld));
    if (state == "Waiting" || state == "Abandoned") job_ = cache_.CheckOut(reader_, waiting_);
    if (state == "Abandoned") job_->Cancel();
    told_before_ = waiting_.Count();
  }

  // What the event reads and tells: records, code of the waiting handler, "/", code of the handler
  // of a second read, "job".
  std::string Apply(const std::string& event) {
    TellingHandler second;
    bool is_job = false;
    if (event == "Consume") cache_.Consume({Created(2)});
    if (event == "Fail") cache_.Fail(Failure(kNew));
    if (event == "Cancel") job_->Cancel();
    if (event == "CheckOut") {
      if (job_ == nullptr) {
        job_ = cache_.CheckOut(reader_, waiting_);
        is_job = job_ != nullptr;
      } else {
        EXPECT_EQ(cache_.CheckOut(reader_, second), nullptr);
      }
    }
    std::string told = reader_.Take();
    for (int i = told_before_; i < waiting_.Count(); ++i) told += Code(waiting_.Await());
    told_before_ = waiting_.Count();
    if (second.Count() != 0) told.append("/").append(Code(second.Await()));
    if (is_job) told.append("job");
    return told;
  }

  // The state as its reads show it, with all that they bring.
  std::string Identify() {
    TellingHandler probe;
    const std::shared_ptr<Async::Job> job = cache_.CheckOut(reader_, probe);
    if (job != nullptr) {
      job->Cancel();
      return "Empty";
    }
    const Common::Error told = probe.Await();
    const std::string read = reader_.Take();
    if (told.GetCode() == 0xFC000C) {
      EXPECT_EQ(read, "");
      cache_.Consume({Created(9)});
      return waiting_.Count() != told_before_ ? "Waiting" : "Abandoned";
    }
    if (told.IsFailure()) return Join({"Ended ", Code(told)});
    TellingHandler second_probe;
    const std::shared_ptr<Async::Job> second_job = cache_.CheckOut(reader_, second_probe);
    if (second_job == nullptr) return Join({"Draining ", read, " ", Code(second_probe.Await())});
    second_job->Cancel();
    return Join({"Holding ", read});
  }

 private:
  NotingChanges reader_;
  TellingHandler waiting_;
  InMemoryUpdateCache cache_;
  std::shared_ptr<Async::Job> job_;
  int told_before_ = 0;
};

TEST(UpdateCache, GoesThroughItsStates) {
  struct Transition {
    const char* from;
    const char* event;
    const char* to;
    const char* told;
  };
  const Transition transitions[] = {
      {"Empty", "Consume", "Holding +2", ""},
      {"Empty", "Fail", "Ended 82", ""},
      {"Empty", "CheckOut", "Waiting", "job"},
      {"Holding", "Consume", "Holding +1+2", ""},
      {"Holding", "Fail", "Draining +1 82", ""},
      {"Holding", "CheckOut", "Empty", "+10"},
      {"Draining", "Consume", "Holding +1+2", ""},
      {"Draining", "Fail", "Draining +1 82", ""},
      {"Draining", "CheckOut", "Ended 81", "+10"},
      {"Ended", "Consume", "Holding +2", ""},
      {"Ended", "Fail", "Ended 82", ""},
      {"Ended", "CheckOut", "Ended 81", "81"},
      {"Failed", "CheckOut", "Ended 81", "81"},
      {"Waiting", "Consume", "Empty", "+20"},
      {"Waiting", "Fail", "Ended 82", "82"},
      {"Waiting", "CheckOut", "Waiting", "/fc000c"},
      {"Waiting", "Cancel", "Abandoned", "f90002"},
      {"Abandoned", "Consume", "Holding +2", ""},
      {"Abandoned", "Fail", "Ended 82", ""},
      {"Abandoned", "CheckOut", "Abandoned", "/fc000c"},
      {"Abandoned", "Cancel", "Abandoned", ""},
  };
  for (const Transition& expected : transitions) {
    SCOPED_TRACE(Join({expected.from, " ", expected.event}));
    Cache cache(expected.from);
    EXPECT_EQ(cache.Apply(expected.event), expected.told);
    EXPECT_EQ(cache.Identify(), expected.to);
  }
}

class UpdateCacheReads : public testing::Test {
 protected:
  NotingChanges reader_;
  TellingHandler handler_;
  std::optional<InMemoryUpdateCache> cache_{std::in_place};
};

TEST_F(UpdateCacheReads, GoOnBehindAnErrorOfTheReaderAndEndWithAnyOtherException) {
  TestSupport::TraceRecorder traces;
  reader_.in_read = [](const Por::View::Unit& unit) {
    if (Por::Util::GetValue<unsigned int>(unit) == 1) throw Failure(0x91);
    if (Por::Util::GetValue<unsigned int>(unit) == 3) throw std::runtime_error("three");
  };
  for (const bool waits : {false, true}) {
    TellingHandler handler;
    std::shared_ptr<Async::Job> job;
    if (waits) job = cache_->CheckOut(reader_, handler);
    cache_->Consume({Created(1), Created(2), Created(3), Created(4)});
    if (!waits) job = cache_->CheckOut(reader_, handler);
    EXPECT_EQ(reader_.Take(), "+2");
    EXPECT_EQ(handler.Await().GetCode(), Async::kStdExceptionCode);
  }
}

TEST_F(UpdateCacheReads, MayEndTheCacheFromTheirHandler) {
  handler_.then = [&] { cache_.reset(); };
  cache_->Consume({Created(1)});
  cache_->CheckOut(reader_, handler_);
  EXPECT_FALSE(cache_.has_value());
}

TEST_F(UpdateCacheReads, JobsHoldWhatTheyAreToKeep) {
  auto kept = std::make_shared<int>();
  const std::weak_ptr<int> watched = kept;
  TellingHandler handler;
  auto job = cache_->CheckOut(reader_, handler, std::move(kept));
  cache_->Consume({Created(1)});
  EXPECT_EQ(handler.Count(), 1);
  EXPECT_FALSE(watched.expired());
  job.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(UpdateCacheReads, MayFollowOneAnotherInReaderAndHandler) {
  cache_->Consume({Created(1)});
  TellingHandler in_reader;
  TellingHandler in_handler;
  std::shared_ptr<Async::Job> job;
  reader_.in_read = [&](const Por::View::Unit&) {
    reader_.in_read = nullptr;
    cache_->Consume({Created(2)});  // no lock is held
    cache_->CheckOut(reader_, in_reader);
  };
  handler_.then = [&] { job = cache_->CheckOut(reader_, in_handler); };
  cache_->CheckOut(reader_, handler_);
  EXPECT_EQ(reader_.Take(), "+2+1");
  EXPECT_EQ(in_reader.Count(), 1);
  cache_->Consume({Created(3)});
  EXPECT_EQ(reader_.Take(), "+3");
  EXPECT_EQ(in_handler.Count(), 1);
}

TEST_F(UpdateCacheReads, LoseNothingForWantOfMemory) {
  const std::vector<ViewUpdate> records = {Created(1), Created(2)};
  EXPECT_THROW(
      {
        const TestSupport::AllocationWatch watch(0);
        cache_->Consume(records);
      },
      std::bad_alloc);
  std::uint32_t code = 0;
  try {
    const TestSupport::AllocationWatch watch(0);
    cache_->CheckOut(reader_, handler_);
  } catch (const Common::Error& error) {
    code = error.GetCode();
  }
  EXPECT_EQ(code, Common::kOutOfMemoryCode);
  EXPECT_EQ(handler_.Count(), 0);
  struct Counting final : SubscriptionReader {
    void OnCreated(const Por::View::Unit&) override { ++count; }
    void OnUpdated(const Por::View::Unit&, const Por::View::Unit&) override {}
    void OnDeleted(const Por::View::Unit&) override {}
    int count = 0;
  } counting;
  const std::shared_ptr<Async::Job> job = cache_->CheckOut(counting, handler_);
  ASSERT_NE(job, nullptr);
  const TestSupport::AllocationWatch watch(0);
  cache_->Consume(records);  // read where they are
  EXPECT_EQ(counting.count, 2);
  EXPECT_EQ(handler_.Count(), 1);
}

}  // namespace
}  // namespace Dml::Client
