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

TEST(WalkStack, NamesFramesFromTheInnermost) {
  Probe::Frames frames;
  EXPECT_TRUE(Probe::WalkHere(32, frames));
  ASSERT_GE(frames.texts.size(), 4u);
  EXPECT_LE(frames.texts.size(), 32u);
  // Module, demangled symbol, offset, and what follows the parenthesis, in their columns. Frames of
  // a sanitizer may come first.
  const std::string end = " *  \\+ 0x[0-9a-f]+ *\\)  \\[0x[0-9a-f]+\\]";
  const std::regex outer("[^ ]+ *\\( Probe::WalkHere\\(unsigned int, Probe::Frames&\\)" + end);
  const std::regex inner("[^ ]+ *\\( Common::WalkStack\\(Common::StackWalkParameters const&\\)" +
                         end);
  std::size_t place = 1;
  while (place < 4 && !std::regex_match(frames.texts[place], outer)) ++place;
  ASSERT_LT(place, 4u) << "not found";
  EXPECT_TRUE(std::regex_match(frames.texts[place - 1], inner)) << frames.texts[place - 1];
  for (const std::string& text : frames.texts) {
    const std::size_t open = text.find(" ( ");
    ASSERT_NE(open, std::string::npos) << text;
    EXPECT_GE(open, 30u) << text;
  }
}

TEST(WalkStack, EndsAtTheMaximumOrWhenTheCallbackSaysSo) {
  for (const unsigned int max_frames : {0u, 2u}) {
    Probe::Frames frames;
    EXPECT_EQ(Probe::WalkHere(max_frames, frames), max_frames != 0);
    EXPECT_EQ(frames.texts.size(), max_frames);
  }
  Probe::Frames stopped;
  stopped.stop_at = 1;
  EXPECT_FALSE(Probe::WalkHere(200, stopped));
  EXPECT_EQ(stopped.texts.size(), 2u);
}

}  // namespace
