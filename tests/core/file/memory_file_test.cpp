#include "core/file/memory_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

namespace Core {
namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

std::string ReadUpTo(i_file& file, std::uint64_t size) {
  std::string text(size, '?');
  std::uint64_t count = 99;
  file.Read(text.data(), size, count);
  text.resize(count);
  return text;
}

std::unique_ptr<ri_file> MakeFile(bool is_block) {
  if (!is_block) return std::make_unique<buf_ifile<char>>("abcdef", 6);
  std::unique_ptr<unsigned char[]> block(new unsigned char[6]);
  std::memcpy(block.get(), "abcdef", 6);
  return std::make_unique<MemoryFile>(std::move(block), 6);
}

const Common::Error kBroken(0x40001, Common::LineTag{});

TEST(MemoryFiles, ReadFromAnyPositionWithoutLeavingTheBlock) {
  for (const bool is_block : {false, true}) {
    const std::unique_ptr<ri_file> file = MakeFile(is_block);
    EXPECT_EQ(ReadUpTo(*file, 4), "abcd");
    EXPECT_EQ(ReadUpTo(*file, 4), "ef");
    EXPECT_EQ(ReadUpTo(*file, 4), "");
    EXPECT_EQ(file->SeekEnd(-1), 5);
    EXPECT_EQ(ReadUpTo(*file, ~std::uint64_t{0} >> 40), "f");
    EXPECT_EQ(file->Seek(2), 2);
    EXPECT_EQ(file->GetSize(), 6u);
    EXPECT_EQ(ReadUpTo(*file, 1), "c");
    for (const std::int64_t outside : {std::int64_t{-1}, std::int64_t{6}, kLeast, kMost}) {
      EXPECT_EQ(file->Seek(outside), outside);
      EXPECT_EQ(ReadUpTo(*file, 8), "") << outside;
      EXPECT_EQ(file->SeekCurrent(0), outside);
    }
    EXPECT_EQ(file->SeekCurrent(1), kLeast);
    EXPECT_EQ(file->SeekEnd(kMost), kLeast + 5);
    file->Rewind();
    EXPECT_EQ(ReadUpTo(*file, 1), "a");
    EXPECT_FALSE(file->HasFailed());
    // They differ in what a failure stops.
    file->SetError(kBroken);
    EXPECT_EQ(ReadUpTo(*file, 2), is_block ? "" : "bc");
    EXPECT_EQ(file->SeekEnd(0), 6);
    file->SetError({});
    file->Seek(3);
    EXPECT_EQ(ReadUpTo(*file, 2), "de");
  }
  EXPECT_EQ(MemoryFile(nullptr, 5).GetSize(), 0u);
  EXPECT_EQ(buf_ifile<char>(std::unique_ptr<char[]>(), 5).GetSize(), 0u);
  std::unique_ptr<char[]> text(new char[2]{'a', 'b'});
  EXPECT_EQ(buf_ifile<char>(std::move(text), 2).GetSize(), 2u);
}

TEST(StickyError, KeepsTheFirstFailure) {
  struct record : ioctl_record {
    int result = 7;
  } request;
  EXPECT_EQ(MakeIoctlCode("GSEC"), 0x43455347u);
  request.code = MakeIoctlCode("GSEC");
  const std::function<void(ri_file&)> kUnsupported[] = {
      [&](ri_file& file) { file.IOCTL(request); },
      [](ri_file& file) { file.LockShared(0, 0, true); },
      [](ri_file& file) { file.Unlock(0, 0); },
  };
  for (const auto& call : kUnsupported) {
    const std::unique_ptr<ri_file> file = MakeFile(true);
    call(*file);
    EXPECT_EQ(file->GetError().GetCode(), 0x4000Eu);
    EXPECT_EQ(file->GetError().GetMessage(), u"The operation is not supported.");
    file->SetError(kBroken);
    call(*file);
    EXPECT_EQ(file->GetError().GetCode(), 0x40001u);
  }
}

TEST(ExactRead, MakesAShortOneAFailure) {
  const std::unique_ptr<ri_file> file = MakeFile(true);
  char buffer[8] = "-------";
  Read(*file, buffer, 6);
  EXPECT_FALSE(file->HasFailed());
  file->Seek(4);
  Read(*file, buffer, 3);
  EXPECT_EQ(std::string_view(buffer, 3), "efc");
  EXPECT_EQ(file->GetError().GetCode(), 0x40002u);
  EXPECT_EQ(file->GetError().GetMessage(), u"The end of the file has been reached.");
  const Common::LineTag tag = file->GetError().GetLineTag();
  EXPECT_STREQ(tag.file, "core/include/file/file");
  EXPECT_STREQ(tag.function, "Read");
  EXPECT_EQ(tag.line, 27u);
  file->SetError(kBroken);
  Read(*file, buffer, 3);
  EXPECT_EQ(file->GetError().GetCode(), 0x40001u);
}

// Has room for 4 bytes.
class SmallDisk final : public rio_file {
 public:
  void Read(void*, std::uint64_t, std::uint64_t& count) override { count = 0; }
  void Write(const void* buffer, std::uint64_t size, std::uint64_t& count) override {
    count = HasFailed() ? 0 : std::min<std::uint64_t>(size, 4 - text.size());
    text.append(static_cast<const char*>(buffer), count);
  }
  std::int64_t Seek(std::int64_t offset) override { return position = offset; }
  std::int64_t SeekCurrent(std::int64_t offset) override { return position += offset; }
  std::int64_t SeekEnd(std::int64_t offset) override { return position = 4 + offset; }
  void Truncate(std::uint64_t) override {}
  void LockExclusive(std::int64_t, std::uint64_t, bool) override {}

  std::string text;
  std::int64_t position = 0;
};

TEST(ExactWrite, MakesAShortOneAFullDisk) {
  SmallDisk file;
  Write(file, "abc", 3);
  EXPECT_FALSE(file.HasFailed());
  Write(file, "def", 3);
  EXPECT_EQ(file.text, "abcd");
  EXPECT_EQ(file.GetError().GetCode(), 0x40004u);
  EXPECT_EQ(file.GetError().GetMessage(), u"The disk is full.");
  file.SetError(kBroken);
  Write(file, "g", 1);
  EXPECT_EQ(file.GetError().GetCode(), 0x40001u);
}

TEST(FilesWithPositions, KeepTheirPlaceWhenAskedForTheSize) {
  SmallDisk file;
  file.Seek(3);
  sized_file& sized = file;
  EXPECT_EQ(sized.GetSize(), 4u);
  EXPECT_EQ(file.position, 3);
  sized.Rewind();
  EXPECT_EQ(file.position, 0);
}

}  // namespace
}  // namespace Core
