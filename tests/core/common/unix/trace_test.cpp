#include "core/common/unix/trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/unix/event.h"
#include "tests/support/trace_recorder.h"

namespace {

using Common::IsTraced;
using Common::Trace;
using TestSupport::TraceRecorder;

// Calls back for each 8-bit text.
class CallingSink : public Common::TraceSink {
 public:
  explicit CallingSink(std::function<void()> call = [] {}) : call_(std::move(call)) {}
  ~CallingSink() override { is_alive_ = false; }
  unsigned int GetLevel() const override { return 0; }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char*) override {
    EXPECT_TRUE(is_alive_);
    call_();
  }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {}

 private:
  const std::function<void()> call_;
  bool is_alive_ = true;
};

TEST(Trace, ReachesTheSinksWhoseLevelAllowsIt) {
  EXPECT_EQ(Common::GetTraceThreshold(), 2u);
  EXPECT_FALSE(IsTraced(5));
  {
    const TraceRecorder errors(4);
    EXPECT_FALSE(IsTraced(3));
    EXPECT_TRUE(IsTraced(4));
    const TraceRecorder all(1);
    EXPECT_TRUE(IsTraced(1));
    Trace(1, 1, 1, "debug");
    Common::SetTraceThreshold(2);
    EXPECT_FALSE(IsTraced(1));
    Trace(1, 1, 1, "below the threshold");
    Trace(2, 0xF9, 2, "information");
    Trace(4, 0xFFFF, 27, u"wide");
    Trace(5, 0, 0, static_cast<const char*>(nullptr));
    EXPECT_EQ(all.Codes(), "1 1 1\n2 f9 2\n4 ffff 1b\n5 0 0\n");
    EXPECT_EQ(errors.Codes(), "4 ffff 1b\n5 0 0\n");
    EXPECT_EQ(errors.All()[0].text, "wide");
    EXPECT_EQ(errors.All()[1].text, "");
  }
  EXPECT_EQ(Common::GetTraceThreshold(), 2u);
  EXPECT_FALSE(IsTraced(5));
}

TEST(Trace, RegistryRefusesASinkTwiceAndTellsWhenItIsFull) {
  std::vector<std::unique_ptr<CallingSink>> sinks;
  for (;;) {
    sinks.push_back(std::make_unique<CallingSink>());
    if (!Common::RegisterTraceSink(*sinks.back())) break;
    ASSERT_LT(sinks.size(), 1000u);
  }
  for (const auto& sink : sinks) Common::UnregisterTraceSink(*sink);
  EXPECT_FALSE(IsTraced(5));
  int calls = 0;
  CallingSink sink([&calls] { ++calls; });
  EXPECT_TRUE(Common::RegisterTraceSink(sink));
  EXPECT_FALSE(Common::RegisterTraceSink(sink));
  Trace(3, 1, 2, "x");
  EXPECT_EQ(calls, 1);
  Common::UnregisterTraceSink(sink);
  EXPECT_FALSE(IsTraced(5));
}

// Who takes a sink out waits for the threads in that sink, not for those in one that comes
// meanwhile.
TEST(Trace, ASinkIsTakenOutThoughAnotherOneBlocks) {
  struct BlockingSink : CallingSink {
    BlockingSink()
        : CallingSink([this] {
            entered.Set();
            leave.Wait();
          }) {}
    Common::Event entered{true, false};
    Common::Event leave{true, false};
  };
  constexpr std::uint32_t kLong = 20000;
  BlockingSink first;
  BlockingSink second;
  Common::Event is_out(true, false);
  ASSERT_TRUE(Common::RegisterTraceSink(first));
  std::thread in_first([] { Trace(4, 1, 1, "first"); });
  EXPECT_TRUE(first.entered.Wait(kLong));
  std::thread remover([&] {
    Common::UnregisterTraceSink(first);
    is_out.Set();
  });
  while (IsTraced(5)) std::this_thread::yield();
  EXPECT_TRUE(Common::RegisterTraceSink(second));
  std::thread in_second([] { Trace(4, 1, 1, "second"); });
  EXPECT_TRUE(second.entered.Wait(kLong));
  EXPECT_FALSE(is_out.Wait(0));
  first.leave.Set();
  EXPECT_TRUE(is_out.Wait(kLong));
  second.leave.Set();
  in_first.join();
  in_second.join();
  remover.join();
  Common::UnregisterTraceSink(second);
}

// A sink may die as soon as it is taken out, whatever other threads trace.
TEST(Trace, SinksComeAndGoWhileOthersTrace) {
  std::atomic<bool> stop{false};
  std::atomic<int> count{0};
  std::vector<std::thread> tracers;
  for (int i = 0; i < 2; ++i) {
    tracers.emplace_back([&stop] {
      while (!stop) Trace(4, 1, 1, "text");
    });
  }
  while (count < 20000) {
    const auto sink = std::make_unique<CallingSink>([&count] { ++count; });
    EXPECT_TRUE(Common::RegisterTraceSink(*sink));
    std::this_thread::yield();
    Common::UnregisterTraceSink(*sink);
  }
  stop = true;
  for (std::thread& tracer : tracers) tracer.join();
}

}  // namespace
