#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "tests/support/allocation_watch.h"
#include "tests/support/text.h"

namespace Common {
namespace {

using std::string_literals::operator""s;

const std::string kModuleBytes = "$module\0Aobjprobe_lxa64_43267\0"s;

std::string BytesOf(const Error& error) {
  unsigned int size = 0;
  const auto bytes = error.Save(size);
  return std::string(reinterpret_cast<const char*>(bytes.get()), size);
}

Error LoadBytes(const std::string& bytes) {
  // An exact copy on the heap, so that the address sanitizer sees a step too far.
  const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
  return Error::Load(exact.data(), static_cast<unsigned int>(exact.size()));
}

std::string TextOf(const Error& error) {
  return TestSupport::Utf8(error.ToString());
}

std::size_t CountRecords(const Error& error) {
  std::size_t count = 0;
  for (const ErrorRecord* record = error.GetRecord(); record != nullptr; record = record->next) {
    ++count;
  }
  return count;
}

// A record in bytes: its code, a location of 1, and what follows.
std::string RecordBytes(char code, const std::string& rest) {
  return std::string{code, 0, 0, 0} + "\1\0\0\0\0\0\0\0"s + rest;
}

// Two records with every part that a record can have.
Error MakeSample() {
  Error error = MakePathAndNameError(0x40014, u"caf\u00E9", u"/p\u4E2D", u"n",
                                     {0x1122334455667788, "a/b", "Work", 0x1234});
  error.AddPosixError(ENOENT, {});
  return error;
}

const std::string kFirstBytes = "\x14\x00\x04\x00\x88\x77\x66\x55\x44\x33\x22\x11"s +
                                "caf\xC3\xA9\0"s + "path\0W/p\xE4\xB8\xAD\0name\0Wn\0"s +
                                kModuleBytes + "$file\0Aa/b\0$func\0AWork\0"s +
                                "$line\0N\x34\x12\0\0\0\0\0\0"s + "\0"s;
const std::string kSampleBytes = "\1"s + kFirstBytes + "\xF1\xFF\0\0\0\0\0\0\0\0\0\0"s +
                                 "No such file or directory\0code\0N\2\0\0\0\0\0\0\0"s +
                                 kModuleBytes + "\0"s;

TEST(ErrorBytes, HaveTheirLayout) {
  EXPECT_EQ(BytesOf(Error()), "\1"s);
  EXPECT_EQ(BytesOf(MakeSample()), kSampleBytes);
  EXPECT_EQ(BytesOf(MakePathError(5, nullptr, "\xFF", {1, nullptr, nullptr, 0})),
            "\1"s + RecordBytes(5, "\0path\0A\xFF\0"s + kModuleBytes + "\0"s));
}

TEST(ErrorBytes, LoadGivesTheSameErrorBack) {
  const Error loaded = LoadBytes(kSampleBytes);
  EXPECT_EQ(TextOf(loaded), TextOf(MakeSample()));
  EXPECT_EQ(BytesOf(loaded), kSampleBytes);
  // Types don't mix, and there is no "$module" but the one that came.
  const ErrorRecord* record = loaded.GetRecord();
  EXPECT_EQ(record->operations->GetAnsi(record, "path"), nullptr);
  EXPECT_EQ(record->operations->GetWide(record, "pat"), nullptr);
  EXPECT_EQ(record->operations->GetNumber(record, "path"), 0u);
  EXPECT_EQ(record->operations->GetWide(record, "$module"), nullptr);
  EXPECT_EQ(TextOf(LoadBytes("\1"s + RecordBytes(5, "\0\0"s))), "Error 0x5\n| line: 0x1");
  // Texts of places are kept once, for good.
  EXPECT_EQ(LoadBytes(kSampleBytes).GetLineTag().file, loaded.GetLineTag().file);
  // A clone is the same, wherever it lies.
  Error copy = loaded;
  copy.SetReason(loaded.GetNextError());
  EXPECT_NE(copy.GetRecord(), loaded.GetRecord());
  EXPECT_EQ(BytesOf(copy), kSampleBytes);
}

TEST(ErrorBytes, BadDataLeavesTheGoodFrontPart) {
  const std::string good = RecordBytes(5, "good\0\0"s);
  const std::pair<std::string, std::size_t> cases[] = {
      {"\2"s + good, 0},  // another version
      {"\1"s + RecordBytes(0, "x\0\0"s) + good, 0},
      {"\1"s + good + RecordBytes(0, "x\0\0"s) + good, 1},
      {"\1"s + good + std::string(11, '\7'), 1},
      // A message that is no UTF-8, over-long, and a surrogate; a value that is no UTF-8.
      {"\1"s + good + RecordBytes(6, "\xE4\xB8\0\0"s), 1},
      {"\1"s + good + RecordBytes(6, "\xC0\x80\0\0"s), 1},
      {"\1"s + good + RecordBytes(6, "\xED\xB0\x80\0\0"s), 2},
      {"\1"s + good + RecordBytes(6, "\0a\0W\xFF\0\0"s), 2},
      {"\1"s + good + RecordBytes(6, "m\0a\0B\0\0"s) + good, 1},  // an unknown tag
  };
  for (const auto& [bytes, records] : cases) {
    EXPECT_EQ(CountRecords(LoadBytes(bytes)), records) << testing::PrintToString(bytes);
  }
}

TEST(ErrorBytes, PlacesNeedTheirTags) {
  const Error error = LoadBytes(
      "\1"s +
      RecordBytes(5, "\0$file\0Wf\0$func\0N\1\0\0\0\0\0\0\0$line\0A7\0"s +
                         "$file\0Aold\0$file\0Anew\0$line\0N\xFF\xFF\xFF\xFF\1\0\0\0"s +
                         "a,b\0N\1\0\0\0\0\0\0\0twice\0N\1\0\0\0\0\0\0\0twice\0N\2\0\0\0\0\0\0\0"s +
                         "twice\0Atext\0\0"s));
  EXPECT_EQ(TextOf(error),
            "Error 0x5\n| line: 0x1\n| file: new:4294967295\n"
            "| $file: f\n| $func: 0x1\n| $line: 7\n"
            // Names with a comma can't be looked up again.
            "| a: 0x0\n| b: 0x0\n"
            "| twice: text\n| twice: text\n| twice: text");
  EXPECT_EQ(error.GetRecord()->operations->GetNumber(error.GetRecord(), "twice"), 1u);
}

TEST(ErrorBytes, EveryTruncationGivesTheWholeRecordsBefore) {
  for (std::size_t size = 0; size < kSampleBytes.size(); ++size) {
    const std::size_t expected = size >= 1 + kFirstBytes.size() ? 1 : 0;
    EXPECT_EQ(CountRecords(LoadBytes(kSampleBytes.substr(0, size))), expected) << size;
  }
  EXPECT_EQ(Error::Load(nullptr, 100).GetRecord(), nullptr);
}

TEST(ErrorBytes, WhatSurvivesFlippedBytesCanBeSavedAgain) {
  for (std::size_t at = 0; at < kSampleBytes.size(); ++at) {
    for (const int flip : {0x01, 0x02, 0x10, 0x20, 0x80, 0xFF}) {
      std::string bytes = kSampleBytes;
      bytes[at] = static_cast<char>(bytes[at] ^ flip);
      const Error error = LoadBytes(bytes);
      EXPECT_EQ(TextOf(LoadBytes(BytesOf(error))), TextOf(error)) << at << " " << flip;
    }
  }
}

TEST(ErrorBytes, LoadTellsAndSaveThrowsWhenMemoryRunsOut) {
  const Error sample = MakeSample();
  LoadBytes(kSampleBytes);  // what stays for good is there now
  TestSupport::FailEachAllocation([&](const TestSupport::AllocationWatch& watch) {
    const Error error = Error::Load(reinterpret_cast<const unsigned char*>(kSampleBytes.data()),
                                    static_cast<unsigned int>(kSampleBytes.size()));
    EXPECT_EQ(error.HoldsCode(kOutOfMemoryCode), watch.HasFailed());
    EXPECT_TRUE(error.GetCode() == kOutOfMemoryCode || error.GetMessage() == sample.GetMessage());
  });
  EXPECT_EQ(TextOf(Error::OutOfMemory()),
            "Error 0xfff2\n| line: 0x0\n| $module: objprobe_lxa64_43267");
  TestSupport::FailEachAllocation([&](const TestSupport::AllocationWatch& watch) {
    unsigned int size = 0;
    bool has_thrown = false;
    try {
      sample.Save(size);
    } catch (const std::bad_alloc&) {
      has_thrown = true;
    }
    EXPECT_EQ(has_thrown, watch.HasFailed());
  });
}

// A name that is there again gets the first value again, so few bytes could ask for many.
TEST(ErrorBytes, RepeatedNamesDoNotMultiplyARecord) {
  const std::string good = RecordBytes(1, "\0"s + "x\0Avalue\0"s + "x\0A\0"s + "x,x\0A\0\0"s);
  const std::string value(2000, 'v');
  std::string again, list;
  for (int i = 0; i < 2000; ++i) {
    again += "x\0A\0"s;
    list += ",x";
  }
  for (const std::string& parameters :
       {"x\0A"s + value + "\0"s + again, "x\0A"s + value + "\0"s + list + "\0A\0"s,
        "x\0A"s + value + "\0x\0W\0"s + again, "x\0A\0x\0W"s + value + "\0"s + again}) {
    const Error error = LoadBytes("\1"s + good + RecordBytes(2, "\0"s + parameters + "\0"s) + good);
    EXPECT_EQ(CountRecords(error), 1u);
    // The four names of the good one print its one value.
    EXPECT_NE(TextOf(error).find("| x: value\n| x: value\n| x: value\n| x: value"),
              std::string::npos);
  }
}

}  // namespace
}  // namespace Common
