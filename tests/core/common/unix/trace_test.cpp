#include "core/common/unix/trace.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/common/unix/event.h"

namespace {

using Common::Trace;

class RecordingSink : public Common::TraceSink {
 public:
  explicit RecordingSink(unsigned int level) : level_(level) {}
  unsigned int GetLevel() const override { return level_; }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char* text) override {
    Add(level, module, code, text);
  }
  void Write(unsigned int level, std::uint32_t module, std::uint32_t code,
             const char16_t* text) override {
    std::string narrow = "u";
    for (; *text != 0; ++text) narrow += static_cast<char>(*text);
    Add(level, module, code, narrow);
  }
  std::string Take() { return std::exchange(text_, {}); }

 private:
  void Add(unsigned int level, std::uint32_t module, std::uint32_t code, const std::string& text) {
    text_ += std::to_string(level) + " " + std::to_string(module) + " " + std::to_string(code) +
             " " + text + "\n";
  }

  const unsigned int level_;
  std::string text_;
};

// A sink for the length of a scope.
template <class Sink>
class Registered {
 public:
  explicit Registered(Sink& sink) : sink_(sink) { EXPECT_TRUE(RegisterTraceSink(sink_)); }
  ~Registered() { UnregisterTraceSink(sink_); }

 private:
  Sink& sink_;
};

TEST(Trace, ReachesTheSinksWhoseLevelAllowsIt) {
  RecordingSink all(0);
  RecordingSink errors(4);
  EXPECT_FALSE(Common::IsTraced(5));
  {
    const Registered first(errors);
    EXPECT_FALSE(Common::IsTraced(3));
    EXPECT_TRUE(Common::IsTraced(4));
    const Registered second(all);
    EXPECT_FALSE(Common::IsTraced(1));
    EXPECT_TRUE(Common::IsTraced(2));
    Trace(1, 1, 1, "below the threshold");
    Trace(2, 0xF9, 2, "information");
    Trace(4, 0xFFFF, 27, u"wide");
    Trace(5, 0, 0, static_cast<const char*>(nullptr));
    EXPECT_EQ(all.Take(), "2 249 2 information\n4 65535 27 uwide\n5 0 0 \n");
    EXPECT_EQ(errors.Take(), "4 65535 27 uwide\n5 0 0 \n");

    Common::SetTraceThreshold(1);
    EXPECT_TRUE(Common::IsTraced(1));
    Trace(1, 1, 1, "debug");
    Common::SetTraceThreshold(5);
    EXPECT_FALSE(Common::IsTraced(4));
    Trace(4, 1, 1, "error");
    Common::SetTraceThreshold(2);
    EXPECT_EQ(all.Take(), "1 1 1 debug\n");
  }
  EXPECT_FALSE(Common::IsTraced(5));
  Trace(5, 0, 0, "nobody listens");
  EXPECT_EQ(all.Take(), "");
}

TEST(Trace, RegistryTellsWhenItIsFull) {
  std::vector<std::unique_ptr<RecordingSink>> sinks;
  for (;;) {
    sinks.push_back(std::make_unique<RecordingSink>(0));
    if (!Common::RegisterTraceSink(*sinks.back())) break;
    ASSERT_LT(sinks.size(), 1000u);
  }
  for (const auto& sink : sinks) Common::UnregisterTraceSink(*sink);
  EXPECT_FALSE(Common::IsTraced(5));
  RecordingSink sink(0);
  const Registered again(sink);
  Trace(3, 1, 2, "x");
  EXPECT_EQ(sink.Take(), "3 1 2 x\n");
}

TEST(Trace, RefusesASinkThatIsRegistered) {
  RecordingSink sink(0);
  {
    const Registered registered(sink);
    EXPECT_FALSE(Common::RegisterTraceSink(sink));
    Trace(3, 1, 2, "x");
    EXPECT_EQ(sink.Take(), "3 1 2 x\n");
  }
  EXPECT_FALSE(Common::IsTraced(5));
}

// Who takes a sink out waits for the threads in that sink, not for those in one that comes
// meanwhile.
TEST(Trace, ASinkIsTakenOutThoughAnotherOneBlocks) {
  class BlockingSink : public Common::TraceSink {
   public:
    unsigned int GetLevel() const override { return 0; }
    void Write(unsigned int, std::uint32_t, std::uint32_t, const char*) override {
      entered.Set();
      leave.Wait();
    }
    void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {}

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
  while (Common::IsTraced(5)) std::this_thread::yield();
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
  class CountingSink : public Common::TraceSink {
   public:
    explicit CountingSink(std::atomic<int>& count) : count_(count) {}
    ~CountingSink() override { alive_ = false; }
    unsigned int GetLevel() const override { return 0; }
    void Write(unsigned int, std::uint32_t, std::uint32_t, const char*) override {
      EXPECT_TRUE(alive_);
      ++count_;
    }
    void Write(unsigned int, std::uint32_t, std::uint32_t, const char16_t*) override {}

   private:
    std::atomic<int>& count_;
    bool alive_ = true;
  };
  std::atomic<bool> stop{false};
  std::atomic<int> count{0};
  std::vector<std::thread> tracers;
  for (int i = 0; i < 2; ++i) {
    tracers.emplace_back([&stop] {
      while (!stop) Trace(4, 1, 1, "text");
    });
  }
  while (count < 20000) {
    auto sink = std::make_unique<CountingSink>(count);
    const Registered registered(*sink);
    std::this_thread::yield();
  }
  stop = true;
  for (std::thread& tracer : tracers) tracer.join();
}

}  // namespace
