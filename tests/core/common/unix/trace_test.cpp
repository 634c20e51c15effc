#include "core/common/unix/trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/trace.h"
#include "core/common/unix/event.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/trace_recorder.h"

namespace {

using Common::IsTraced;
using Common::Trace;
using TestSupport::TraceRecorder;

// Calls back for each 8-bit text.
class CallingSink : public Common::TraceSink {
 public:
  explicit CallingSink(std::function<void()> call = [] {}) : call_(std::move(call)) {}
  unsigned int GetLevel() const override { return 0; }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char*) override { call_(); }
  void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {}

 private:
  const std::function<void()> call_;
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
// meanwhile, and its place is not given away before.
TEST(Trace, ASinkIsTakenOutThoughAnotherOneBlocks) {
  constexpr std::uint32_t kLong = 20000;
  Common::Event entered[2] = {{true, false}, {true, false}};
  Common::Event leave[2] = {{true, false}, {true, false}};
  const auto block = [&](int i) {
    return [&, i] {
      entered[i].Set();
      leave[i].Wait();
    };
  };
  CallingSink first(block(0)), second(block(1));
  Common::Event is_out(true, false);
  ASSERT_TRUE(Common::RegisterTraceSink(first));
  std::thread in_first([] { Trace(4, 1, 1, "first"); });
  EXPECT_TRUE(entered[0].Wait(kLong));
  std::thread remover([&] {
    Common::UnregisterTraceSink(first);
    is_out.Set();
  });
  while (IsTraced(5)) std::this_thread::yield();
  EXPECT_TRUE(Common::RegisterTraceSink(second));
  std::thread in_second([] { Trace(4, 1, 1, "second"); });
  EXPECT_TRUE(entered[1].Wait(kLong));
  EXPECT_FALSE(is_out.Wait(0));
  leave[0].Set();
  EXPECT_TRUE(is_out.Wait(kLong));
  leave[1].Set();
  in_first.join();
  in_second.join();
  remover.join();
  Common::UnregisterTraceSink(second);
}

// Whoever traces a failure must go on.
TEST(TraceOfAnError, IsDroppedWithoutMemoryOrByASinkThatThrows) {
  struct ThrowingSink final : CallingSink {
    void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {
      ++calls;
      throw std::runtime_error("broken");
    }
    int calls = 0;
  } sink;
  ASSERT_TRUE(Common::RegisterTraceSink(sink));
  const Common::Error error(0x1234, u"a text that does not fit into a small string", {});
  Trace(4, error);
  EXPECT_EQ(sink.calls, 1);
  {
    const TestSupport::AllocationWatch watch(0, 1);
    Trace(4, error);
    EXPECT_TRUE(watch.HasFailed());
  }
  EXPECT_EQ(sink.calls, 1);
  Common::UnregisterTraceSink(sink);
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
  std::atomic<int> alive{0};  // the sink's number
  // On a busy machine the two sides seldom meet: then some seconds must do.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  for (int i = 1; count < 20000 && (count == 0 || std::chrono::steady_clock::now() < end); ++i) {
    CallingSink sink([&, i] {
      std::this_thread::yield();
      EXPECT_EQ(alive, i);
      ++count;
    });
    alive = i;
    EXPECT_TRUE(Common::RegisterTraceSink(sink));
    std::this_thread::yield();
    Common::UnregisterTraceSink(sink);
    alive = 0;
  }
  stop = true;
  for (std::thread& tracer : tracers) tracer.join();
}

}  // namespace
