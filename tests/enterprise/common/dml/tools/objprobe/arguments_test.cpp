#include "enterprise/common/dml/tools/objprobe/arguments.h"

#include <gtest/gtest.h>

#include <vector>

namespace ObjProbe {
namespace {

struct Line {
  explicit Line(std::vector<const char*> given_words)
      : words(std::move(given_words)), arguments(static_cast<int>(words.size()), words.data()) {}
  std::vector<const char*> words;
  Arguments arguments;
};

// The ten fields, joined by commas.
std::string Fields(const Arguments& a) {
  std::string text = a.hostname;
  for (const std::string* field : {&a.user, &a.password, &a.service, &a.object_type, &a.pattern,
                                   &a.pattern_file, &a.options, &a.options_file, &a.report}) {
    text += ',' + *field;
  }
  return text;
}

TEST(ArgumentsParse, TakesEveryFormOfQuery) {
  const struct {
    std::vector<const char*> words;
    const char* fields;
  } cases[] = {
      {{"objprobe", "h", "u", "p", "agt", "t"}, "h,u,p,AGT,t,,,,,"},
      {{"objprobe", "", "", "", "Hub", ""}, ",,,HUB,,,,,,"},
      {{"objprobe", "h", "u", "p", "DB", "t", "report"}, "h,u,p,DB,t,,,,,report"},
      {{"objprobe", "h", "u", "p", "vlt", "t", "extra", "more"}, "h,u,p,VLT,t,,,,,"},
      {{"objprobe", "h", "u", "p", "dMl", "pattern", "X"}, "h,u,p,DML,,X,,,,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern", "X", "extra"}, "h,u,p,DML,,X,,,,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern", "X", "options", "Y", "report"},
       "h,u,p,DML,,X,,Y,,report"},
      {{"objprobe", "h", "u", "p", "DML", "pattern", "X", "options_file", "F", "options", "Y"},
       "h,u,p,DML,,X,,,F,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern_file", "F", "options_file", "G"},
       "h,u,p,DML,,,F,,G,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern_file", "F", "options", "Y", "report"},
       "h,u,p,DML,,,F,Y,,report"},
      // Words are compared as they stand.
      {{"objprobe", "h", "u", "p", "DML", "Pattern", "X"}, "h,u,p,DML,Pattern,,,,,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern", "X", "Options", "Y"}, "h,u,p,DML,,X,,,,"},
      {{"objprobe", "h", "u", "p", "DML", "pattern", "report", "t"}, "h,u,p,DML,,report,,,,"},
  };
  for (const auto& c : cases) {
    Line line(c.words);
    EXPECT_TRUE(line.arguments.Parse());
    EXPECT_EQ(Fields(line.arguments), c.fields);
  }
}

TEST(ArgumentsParse, WithoutEvenAProgramNameNothingIsRead) {
  Arguments arguments(0, nullptr);
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(arguments.Parse());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), ",,,,,,,,,.\ncode: 1\n");
}

TEST(GetServiceId, KnowsOneKeywordMoreThanTheCommandLine) {
  const std::pair<const char*, unsigned int> cases[] = {{"HUB", 33},  {"VLT", 34}, {"AGT", 35},
                                                        {"RACK", 45}, {"DML", 46}, {"DB", 33},
                                                        {"hub", 33},  {"", 33}};
  for (const auto& [word, id] : cases) EXPECT_EQ(GetServiceId(word), id) << word;
}

}  // namespace
}  // namespace ObjProbe
