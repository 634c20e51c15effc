#include "core/common/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/error_record.h"
#include "core/common/error_render.h"
#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "core/common/text.h"
#include "core/common/trace.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/text.h"
#include "tests/support/trace_recorder.h"

namespace Common {
namespace {

using TestSupport::AllocationWatch;
using TestSupport::Utf8;

constexpr LineTag kTag{0x1122334455667788, "core/sample", "Work", 7};

std::string TextOf(const Error& error) {
  return Utf8(error.ToString());
}

// The tail that all records made with kTag share.
const std::string kPlace = "\n| line: 0x1122334455667788\n| file: core/sample:7\n| function: Work";
const std::string kModule = "\n| $module: objprobe_lxa64_43267";

TEST(ErrorText, RendersAChainAsPublished) {
  Error error = MakeTracedError(
      0xfa000b, GetMessageText(MessageRow::PorNullUnit),
      {0x8efe7e9c26b66db4, "enterprise/common/por/property_holder", "PropertyHolder", 36});
  error.AddPosixError(ENOENT);
  constexpr SourceFile kSource{"core/common/error"};
  static_assert(kSource.At("", 245).location - kSource.At("", 52).location == 193);
  EXPECT_EQ(TextOf(error),
            "Error 0xfa000b: POR: Null units are forbidden.\n"
            "| line: 0x8efe7e9c26b66db4\n"
            "| file: enterprise/common/por/property_holder:36\n"
            "| function: PropertyHolder\n"
            "| TraceLevel: 0x1\n"
            "| $module: objprobe_lxa64_43267\n"
            "|\n"
            "| error 0xfff1: No such file or directory\n"
            "| line: " +
                NumberToHex(kSource.At("", 346).location) +
                "\n"
                "| file: core/common/error:346\n"
                "| function: AddPosixError\n"
                "| code: 0x2\n"
                "| $module: objprobe_lxa64_43267");
}

TEST(ErrorText, EachKindShowsItsMessageAndParameters) {
  const struct {
    Error error;
    std::string expected;
  } cases[] = {
      {Error(), "Success"},
      {MakePathError(0, u"x", "/p", kTag), "Success"},
      {Error(5, LineTag{}), "Error 0x5\n| line: 0x0" + kModule},
      {Error(5, kTag), "Error 0x5" + kPlace + kModule},
      {Error(5, static_cast<const char*>(nullptr), kTag), "Error 0x5" + kPlace + kModule},
      // Bytes are characters, not UTF-8.
      {Error(5, "\xE9\n\xFF", kTag), "Error 0x5: \xC3\xA9\n| \xC3\xBF" + kPlace + kModule},
      {Error(0xFFFFFFFF, u"one\ntwo\n", kTag),
       "Error 0xffffffff: one\n| two\n| " + kPlace + kModule},
      {MakeTracedError(5, nullptr, kTag), "Error 0x5" + kPlace + "\n| TraceLevel: 0x1" + kModule},
      {MakePathError(5, u"m", "/caf\xC3\xA9\nx", kTag),
       "Error 0x5: m" + kPlace + "\n| path: /caf\xC3\xA9\n| x" + kModule},
      {MakePathError(5, u"m", nullptr, kTag), "Error 0x5: m" + kPlace + "\n| path: 0x0" + kModule},
      {MakeTwoPathsError(5, GetMessageText(MessageRow::FileRename), "/from", "/to", kTag),
       "Error 0x5: Error occurred while renaming the file." + kPlace +
           "\n| path1: /from\n| path2: /to" + kModule},
      {MakePathAndNameError(5, u"odd", u"/p", u"n\u00FC", kTag),
       "Error 0x5: odd" + kPlace + "\n| path: /p\n| name: n\xC3\xBC" + kModule},
  };
  for (const auto& row : cases) EXPECT_EQ(TextOf(row.error), row.expected);
}

TEST(ErrorReason, ReplacesTheEarlierOne) {
  Error error(1, kTag);
  error.SetReason(Error(2, kTag));
  error.SetReason(Error(3, kTag));
  EXPECT_EQ(error.GetNextError().GetCode(), 3u);
  EXPECT_FALSE(error.HoldsCode(2));
  error.SetReason(Error());
  EXPECT_EQ(error.GetNextError().GetRecord(), nullptr);

  Error empty;
  empty.SetReason(error);
  EXPECT_EQ(empty.GetRecord(), error.GetRecord());
}

TEST(ErrorReason, OfASharedHeadLeavesTheOtherHolderAlone) {
  Error posix;
  posix.AddPosixError(EACCES);
  for (Error head : {Error(1, kTag), Error(1, "narrow", kTag), posix,
                     MakeTwoPathsError(1, u"m", "a", "b", kTag), Error::OutOfMemory()}) {
    head.SetReason(Error(2, kTag));
    const Error other = head;
    const std::string before = TextOf(other);
    head.SetReason(Error(3, kTag));
    EXPECT_EQ(TextOf(other), before);
    EXPECT_EQ(head.GetNextError().GetCode(), 3u);
    EXPECT_EQ(Utf8(head.GetMessage()), Utf8(other.GetMessage()));
  }
  // The process-wide record is nobody's alone.
  EXPECT_EQ(Error::OutOfMemory().GetNextError().GetRecord(), nullptr);
}

TEST(ErrorReason, NeverClosesACircle) {
  Error error(1, kTag);
  error.SetReason(error);
  EXPECT_EQ(error.GetNextError().GetNextError().GetRecord(), nullptr);

  Error head(2, kTag);
  head.SetReason(Error(3, kTag));
  Error reason = head.GetNextError();
  reason.SetReason(head);
  EXPECT_EQ(TextOf(head).find("0x2", 10), std::string::npos);
  EXPECT_EQ(reason.GetNextError().GetNextError().GetNextError().GetRecord(), nullptr);
}

TEST(ErrorValue, MovesAndAssignsLikeAValue) {
  Error error(1, kTag);
  const ErrorRecord* record = error.GetRecord();
  Error& self = error;
  error = self;
  error = std::move(self);
  ASSERT_EQ(error.GetRecord(), record);
  Error moved(std::move(error));
  EXPECT_EQ(error.GetLineTag().file, nullptr);
  error = std::move(moved);
  EXPECT_EQ(error.GetRecord(), record);
  EXPECT_TRUE(IsOnlyReference(record));
}

TEST(ErrorCost, OneAllocationAndNoCopyOfTableText) {
  const AllocationWatch watch;
  const Error table(1, GetMessageText(MessageRow::SerializationInconsistent), kTag);
  const Error copied(2, u"not of the table", kTag);
  const Error path = MakeTwoPathsError(3, u"m", "/a", "/b", kTag);
  const Error copy = path;
  EXPECT_EQ(watch.GetCount(), 3u);
  EXPECT_LT(table.GetRecord()->size, 100u);
  EXPECT_GE(copied.GetRecord()->size, 100u);
}

TEST(ErrorOutOfMemory, TakesThePlaceOfTheRecord) {
  const std::string text = "Error 0xfff2\n| line: 0x0" + kModule;
  Error plain, narrow, wide, traced, two_paths;
  Error posix(1, kTag);
  {
    const AllocationWatch watch(0);
    plain = Error(1, kTag);
    narrow = Error(1, "m", kTag);
    wide = Error(1, u"m", kTag);
    traced = MakeTracedError(1, u"m", kTag);
    two_paths = MakeTwoPathsError(1, u"m", "/a", "/b", kTag);
    posix.AddPosixError(ENOENT);
  }
  for (const Error& error : {plain, narrow, wide, traced, two_paths, posix.GetNextError()}) {
    EXPECT_EQ(TextOf(error), text);
    EXPECT_EQ(error.GetRecord()->size, 64u);
  }
  EXPECT_EQ(posix.GetCode(), 1u);

  // A shared head that can't be cloned stays as it was, and nothing is lost.
  const Error other = posix;
  const Error reason(9, kTag);
  {
    const AllocationWatch watch(0);
    posix.SetReason(reason);
  }
  EXPECT_EQ(posix.GetRecord(), other.GetRecord());
  EXPECT_TRUE(IsOnlyReference(reason.GetRecord()));
}

TEST(ErrorChain, OfAMillionRecordsNeedsNoStack) {
  constexpr unsigned int kLength = 1'000'000;
  Error error;
  for (unsigned int i = 1; i <= kLength; ++i) {
    Error head(i, LineTag{});
    head.SetReason(error);
    error = std::move(head);
    if (i == 10'000) {
      EXPECT_GT(error.ToString().size(), 500'000u);
    }
  }
  EXPECT_TRUE(error.HoldsCode(1));
  unsigned int size = 0;
  const auto bytes = error.Save(size);
  const Error loaded = Error::Load(bytes.get(), size);
  unsigned int count = 0;
  for (const ErrorRecord* record = loaded.GetRecord(); record != nullptr; record = record->next) {
    ++count;
  }
  EXPECT_EQ(count, kLength);
}

TEST(ErrorSharing, ThreadsCopyExtendAndDropOneChain) {
  Error error(1, "m", kTag);
  error.AddPosixError(ENOENT, kTag);
  const std::string before = TextOf(error);
  const Error out_of_memory = Error::OutOfMemory();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([copy = error, out_of_memory] {
      for (unsigned int round = 1; round <= 2000; ++round) {
        Error mine = copy;
        mine.SetReason(Error(round, kTag));
        Error memory = out_of_memory;
        memory.SetReason(mine);
        ASSERT_TRUE(memory.HoldsCode(round));
        ASSERT_TRUE(copy.HoldsCode(kPosixErrorCode));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(TextOf(error), before);
  EXPECT_TRUE(IsOnlyReference(error.GetRecord()));
}

TEST(ErrorTrace, TakesTheHalvesOfTheCodeApart) {
  const TestSupport::TraceRecorder traces(3);
  Error error(0xFA000B, "m", LineTag{});
  error.SetReason(Error(2, "r", LineTag{}));
  Trace(2, error);
  Trace(4, error);
  Trace(3, Error());
  EXPECT_EQ(traces.Codes(), "4 fa b\n3 0 0\n");
  EXPECT_EQ(traces.All()[0].text, "Error 0xfa000b: m\n| trace level: error\n| line: 0x0" + kModule +
                                      "\n|\n| error 0x2: r\n| line: 0x0" + kModule);
  EXPECT_EQ(traces.All()[1].text, "Success");
  EXPECT_TRUE(traces.All()[0].is_wide);
  const std::pair<unsigned int, const char*> words[] = {
      {1, "debug"}, {2, "information"}, {3, "warning"}, {5, "critical error"}, {0, "0"}};
  for (const auto& [level, word] : words) {
    String text;
    RenderRecord(text, *error.GetRecord(), MessageRow::ReasonHeader, level, u"Main");
    EXPECT_TRUE(Utf8(text).starts_with(std::string("error 0xfa000b: m\n| trace level: ") + word +
                                       "\n| channel: Main\n| line"))
        << word;
  }
}

}  // namespace
}  // namespace Common
