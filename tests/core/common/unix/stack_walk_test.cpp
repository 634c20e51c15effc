#include "core/common/unix/stack_walk.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

// Visible, so that the stack names the function below.
namespace Probe {

struct Frames {
  std::vector<std::string> texts;
  unsigned int stop_at = ~0U;  // frame
};

bool Take(unsigned int frame, const char* text, void* context) {
  Frames& frames = *static_cast<Frames*>(context);
  EXPECT_EQ(frame, frames.texts.size());
  frames.texts.push_back(text);
  return frame != frames.stop_at;
}

[[gnu::noinline]] bool WalkHere(unsigned int max_frames, Frames& frames) {
  const bool result = Common::WalkStack({max_frames, &Take, &frames});
  asm volatile("" : : : "memory");  // no tail call
  return result;
}

}  // namespace Probe

namespace {

using Probe::Frames;

TEST(WalkStack, NamesFramesFromTheInnermost) {
  Frames frames;
  EXPECT_TRUE(Probe::WalkHere(32, frames));
  ASSERT_GE(frames.texts.size(), 3u);
  EXPECT_LE(frames.texts.size(), 32u);
  // Module, demangled symbol, offset, and what follows the parenthesis, in their columns.
  const std::regex expected(
      "[^ ]{30,} \\( Probe::WalkHere\\(unsigned int, Probe::Frames&\\) *  "
      "\\+ 0x[0-9a-f]+ *\\)  \\[0x[0-9a-f]+\\]");
  std::size_t place = 0;
  while (place < frames.texts.size() && !std::regex_match(frames.texts[place], expected)) ++place;
  ASSERT_LT(place, 4u) << "not found";
  const std::string& inner = frames.texts[place - 1];
  EXPECT_NE(inner.find(" ( Common::WalkStack(Common::StackWalkParameters const&) "),
            std::string::npos)
      << inner;
  for (const std::string& text : frames.texts) {
    const std::size_t open = text.find(" ( ");
    ASSERT_NE(open, std::string::npos) << text;
    EXPECT_GE(open, 30u) << text;
  }
}

TEST(WalkStack, EndsAtTheMaximumOrWhenTheCallbackSaysSo) {
  Frames none;
  EXPECT_FALSE(Probe::WalkHere(0, none));
  EXPECT_TRUE(none.texts.empty());
  Frames two;
  EXPECT_TRUE(Probe::WalkHere(2, two));
  EXPECT_EQ(two.texts.size(), 2u);
  Frames stopped;
  stopped.stop_at = 1;
  EXPECT_FALSE(Probe::WalkHere(200, stopped));
  EXPECT_EQ(stopped.texts.size(), 2u);
}

}  // namespace
