#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "core/file/unix/file_name.h"
#include "core/file/unix/posix_dir.h"
#include "tests/core/file/streams/backup_streams.h"
#include "tests/support/temporary_folder.h"

namespace Core {
namespace {

using TestSupport::ChunkList;
using TestSupport::ChunkPlayer;
using TestSupport::ChunkRecorder;
using TestSupport::Number;
using TestSupport::Watcher;

constexpr std::uint64_t kMany = 40000;  // 2 blocks and 7232 bytes

// Refuses new owners.
class StrictDir final : public posix_dir {
 public:
  using posix_dir::posix_dir;
  void SetUnixOwner(const char16_t*, std::uint32_t, std::uint32_t) override {
    SetError(MakeFileError(kFileAccessDenied, Common::LineTag{}));
  }
};

class BackupTest : public testing::Test {
 protected:
  ChunkList Backup(const char16_t* path, std::uint32_t flags = 0, Watcher* watcher = nullptr) {
    ChunkRecorder target;
    backup_record record{{kBackupEntry}, &target, watcher, flags, path};
    directory_.IOCTL(record);
    return std::move(target.chunks);
  }
  // The chain of codes.
  std::vector<std::uint32_t> Restore(const ChunkList& chunks, const char16_t* path,
                                     Watcher* watcher = nullptr, posix_dir* directory = nullptr) {
    posix_dir& place = directory != nullptr ? *directory : directory_;
    ChunkPlayer source(chunks);
    restore_record record{{kRestoreEntry}, &source, watcher, 0, path};
    place.IOCTL(record);
    return GetCodes(place.GetError());
  }
  static std::vector<std::uint32_t> GetCodes(Common::Error error) {
    std::vector<std::uint32_t> codes;
    for (; error.GetRecord() != nullptr; error = error.GetNextError()) {
      codes.push_back(error.GetCode());
    }
    return codes;
  }
  std::string Content(const std::string& name) {
    std::ifstream file(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(folder_ / name, std::ios::binary) << text;
  }
  struct stat Stat(const std::string& name) {
    struct stat status {};
    EXPECT_EQ(::lstat((folder_ / name).c_str(), &status), 0) << name;
    return status;
  }
  bool Exists(const std::string& name) {
    return std::filesystem::exists(std::filesystem::symlink_status(folder_ / name));
  }
  // A description's first five fields.
  std::string Describe(std::uint32_t size, std::uint32_t type, std::uint32_t mode) {
    return Number(size, 4) + Number(type, 4) + Number(::getuid(), 4) + Number(::getgid(), 4) +
           Number(mode, 4);
  }

  const TestSupport::TemporaryFolder folder_;
  posix_dir directory_{folder_.GetPath()};
};

using Codes = std::vector<std::uint32_t>;
const Codes kDone;
const Codes kDamaged{0x4001A, 0x4000D};
const Codes kEnds{0x4001A, 0x40002};

TEST_F(BackupTest, WritesTheChunksOfEachKindOfEntry) {
  Write("f", std::string(kMany, 'x'));
  ::chmod((folder_ / "f").c_str(), 04710);
  const timespec times[] = {{9, 0}, {1234567890, 123999999}};
  ::utimensat(AT_FDCWD, (folder_ / "f").c_str(), times, 0);
  const bool has_attributes = ::setxattr((folder_ / "f").c_str(), "user.ab", "value", 5, 0) == 0;
  Watcher watcher;
  ChunkList chunks = Backup(u"f", 0, &watcher);
  EXPECT_EQ(GetCodes(directory_.GetError()), kDone);
  // What comes behind are the file system's own flags.
  if (chunks.size() == 6 && chunks[5].first == 8) chunks.pop_back();
  const std::string attribute = Number(8, 2) + Number(5, 8) + std::string("user.ab\0value", 13);
  const ChunkList file{{1, Number(0, 4)},
                       {4, std::string(kMany, 'x')},
                       {5, Number(1234567890123, 8) + Number(0, 8)},
                       {6, Describe(20, 0, 0104710)},
                       {7, has_attributes ? attribute : ""}};
  EXPECT_EQ(chunks, file);
  EXPECT_EQ(watcher.progress, (std::vector<std::uint64_t>{16384, 32768, kMany}));

  const auto types = [](const ChunkList& list) {
    std::vector<int> result;
    for (const auto& chunk : list) {
      if (chunk.first != 8) result.push_back(chunk.first);
    }
    return result;
  };
  EXPECT_EQ(types(Backup(u"f", kSkipData)), (std::vector<int>{1, 5, 6, 7}));
  EXPECT_EQ(types(Backup(u"f", kSkipDescription)), (std::vector<int>{4, 7}));

  ASSERT_EQ(::symlink("a\xff"
                      "c",
                      (folder_ / "l").c_str()),
            0);
  chunks = Backup(u"l");
  EXPECT_EQ(types(chunks), (std::vector<int>{1, 5, 6, 7}));
  EXPECT_EQ(chunks[2].second, Describe(30, 5, 0120777) + Number(3, 2) +
                                  std::string("a\0\xff\xf8"
                                              "c\0\0\0",
                                              8));
  ASSERT_EQ(::mkfifo((folder_ / "p").c_str(), 0600), 0);
  chunks = Backup(u"p");
  EXPECT_EQ(types(chunks), (std::vector<int>{1, 5, 6, 7}));
  EXPECT_EQ(chunks[2].second, Describe(20, 3, 010600));
  ASSERT_EQ(::mkdir((folder_ / "d").c_str(), 0750), 0);
  const ChunkList folder = Backup(u"d");
  EXPECT_EQ(types(folder), (std::vector<int>{1, 6, 7}));
  EXPECT_EQ(folder[0].second, Number(16, 4));
  EXPECT_EQ(folder[1].second, Describe(20, 128, 040750));
  // A path that leads further, and the directory itself.
  EXPECT_EQ(Backup(u"d/../d/."), folder);
  posix_dir inner(folder_ / "d");
  ChunkRecorder target;
  backup_record record{{kBackupEntry}, &target, nullptr, 0, nullptr};
  inner.IOCTL(record);
  EXPECT_EQ(target.chunks, folder);
}

TEST_F(BackupTest, TellsWhatKeepsItFromSaving) {
  Write("f", std::string(kMany, 'x'));
  Watcher watcher;
  watcher.patience = 3;
  EXPECT_EQ(Backup(u"f", 0, &watcher).size(), 2u);
  EXPECT_EQ(GetCodes(directory_.GetError()), (Codes{0x40019, 0x4000F}));
  EXPECT_EQ(watcher.progress.size(), 1u);
  EXPECT_TRUE(Backup(u"none").empty());
  EXPECT_EQ(directory_.GetError().GetCode(), 0x40011u);
  backup_record record{{kBackupEntry}, nullptr, nullptr, 0, u"f"};
  directory_.IOCTL(record);
  EXPECT_EQ(GetCodes(directory_.GetError()), (Codes{0x40019, 0x40003}));
  EXPECT_EQ(CommonBackupFile(nullptr, nullptr, record).GetCode(), 0x40007u);
}

TEST_F(BackupTest, MakesWhatWasSaved) {
  Write("f", std::string(kMany, 'x'));
  ::chmod((folder_ / "f").c_str(), 0400);
  const timespec times[] = {{9, 0}, {1234567890, 123999999}};
  ::utimensat(AT_FDCWD, (folder_ / "f").c_str(), times, 0);
  ASSERT_EQ(::symlink("nowhere", (folder_ / "l").c_str()), 0);
  ASSERT_EQ(::mkfifo((folder_ / "p").c_str(), 0640), 0);
  ASSERT_EQ(::mkdir((folder_ / "d").c_str(), 0510), 0);
  const bool has_device = ::mknod((folder_ / "c").c_str(), S_IFCHR | 0620, makedev(1, 300)) == 0;
  const bool has_attributes = ::setxattr((folder_ / "f").c_str(), "user.ab", "value", 5, 0) == 0;
  for (const std::string name : {"f", "l", "p", "d", "c"}) {
    if (name == "c" && !has_device) continue;
    const Common::String copy = FileNameToText("copy of " + name);
    Watcher watcher;
    EXPECT_EQ(Restore(Backup(FileNameToText(name).c_str()), copy.c_str(), &watcher), kDone);
    const struct stat before = Stat(name);
    const struct stat after = Stat("copy of " + name);
    EXPECT_EQ(after.st_mode, before.st_mode) << name;
    EXPECT_EQ(after.st_rdev, before.st_rdev) << name;
    if (name == "d") continue;
    EXPECT_EQ(after.st_size, before.st_size) << name;
    if (name != "f") continue;
    EXPECT_EQ(Content("copy of f"), Content("f"));
    EXPECT_EQ(watcher.progress, (std::vector<std::uint64_t>{16384, 16384, 7232}));
    // The access time is the modification time.
    for (const timespec& time : {after.st_mtim, after.st_atim}) {
      EXPECT_EQ(time.tv_sec, 1234567890);
      EXPECT_EQ(time.tv_nsec, 123000000);
    }
    char value[16];
    if (has_attributes) {
      EXPECT_EQ(::getxattr((folder_ / "copy of f").c_str(), "user.ab", value, 16), 5);
    }
  }
  EXPECT_EQ(std::filesystem::read_symlink(folder_ / "copy of l"), "nowhere");
}

TEST_F(BackupTest, TakesChunksInAnyOrderButForASecondItem) {
  EXPECT_EQ(Restore({}, u"empty"), kDone);
  EXPECT_EQ(Stat("empty").st_size, 0);
  EXPECT_EQ(Restore({{9, "?"},
                     {77, "?"},
                     {4, "ab"},
                     {6, Describe(20, 0, 0100604)},
                     {4, "cd"},
                     {3, ""},
                     {8, "?"},
                     {5, Number(0, 8) + Number(5000, 8)}},
                    u"f"),
            kDone);
  EXPECT_EQ(Content("f"), "abcd");
  EXPECT_EQ(Stat("f").st_mode, 0100604u);
  EXPECT_EQ(Stat("f").st_mtime, 5);
  EXPECT_EQ(Restore({{1, Number(16, 4)}, {4, "data"}, {7, "bad"}}, u"d"), kDone);
  EXPECT_TRUE(S_ISDIR(Stat("d").st_mode));
  EXPECT_EQ(Restore({{1, Number(16, 4)}}, u"d"), kDone);
  EXPECT_EQ(Restore({{3, ""}}, u"g"), (Codes{0x4001A, 0x4000E}));
  // What was made goes, unless it is a directory.
  const std::string fifo = Describe(20, 3, 010600);
  EXPECT_EQ(Restore({{4, "ab"}, {6, fifo}}, u"g"), kDamaged);
  EXPECT_EQ(Restore({{6, fifo}, {6, fifo}, {1, Number(16, 4)}}, u"g"), kDamaged);
  EXPECT_FALSE(Exists("g"));
  EXPECT_EQ(Restore({{1, Number(16, 4)}, {6, fifo}}, u"e"), kDamaged);
  EXPECT_TRUE(Exists("e"));
  // What was there before stays.
  EXPECT_EQ(Restore({{6, fifo}}, u"f"), (Codes{0x4001A, 0x40013, 0xFFF1}));
  EXPECT_EQ(Restore({{6, Describe(26, 5, 0) + Number(1, 2) + Number('x', 4)}}, u"f"),
            (Codes{0x4001A, 0x40013, 0xFFF1}));
  EXPECT_EQ(Content("f"), "abcd");
  EXPECT_EQ(Restore({{4, "x"}}, nullptr)[0], 0x4001Au);
}

TEST_F(BackupTest, EndsInTheMiddleWithoutARest) {
  Watcher watcher;
  watcher.patience = 4;
  EXPECT_EQ(Restore({{4, std::string(kMany, 'x')}}, u"f", &watcher), (Codes{0x4001A, 0x4000F}));
  EXPECT_EQ(watcher.progress.size(), 1u);
  EXPECT_FALSE(Exists("f"));
}

TEST_F(BackupTest, AsksAboutOwnersThatCannotBeSet) {
  StrictDir strict(folder_.GetPath());
  const ChunkList chunks{{6, Describe(20, 0, 0100604)}};
  EXPECT_EQ(Restore(chunks, u"f", nullptr, &strict), kDone);
  EXPECT_TRUE(Exists("f"));
  const struct {
    std::uint32_t answer;
    Codes codes;
  } kCases[] = {{BackupCallback::kForgive, kDone},
                {BackupCallback::kGiveUp, {0x4001A, 0x40023, 0x40014}},
                {BackupCallback::kKeepError, {0x4001A, 0x40014}},
                {77, {0x4001A, 0x40014}}};
  for (const auto& test : kCases) {
    Watcher watcher;
    watcher.answer = test.answer;
    EXPECT_EQ(Restore(chunks, u"g", &watcher, &strict), test.codes) << test.answer;
    EXPECT_EQ(Exists("g"), test.codes.empty()) << test.answer;
    EXPECT_EQ(GetCodes(watcher.security), (Codes{0x40023, 0x40014}));
    EXPECT_EQ(watcher.security_path, FileNameToText(folder_ / "g"));
  }
}

TEST_F(BackupTest, TrustsNoSizeOfAStream) {
  const std::string none = Number(0, 4);
  const struct {
    ChunkList chunks;
    Codes codes;
  } kCases[] = {
      {{{1, "123"}}, kEnds},
      {{{5, "123"}}, kEnds},
      {{{6, Describe(19, 0, 0)}}, kDamaged},
      {{{6, Describe(20, 0, 0).substr(0, 19)}}, kEnds},
      {{{6, Describe(0xFFFFFFFF, 0, 0) + "rest"}}, kEnds},
      {{{6, Describe(27, 1, 0) + "1234567"}}, kDamaged},
      {{{6, Describe(20, 5, 0)}}, kDamaged},
      {{{6, Describe(29, 5, 0) + Number(3, 2) + "1234567"}}, kDamaged},
      {{{6, Describe(30, 5, 0) + Number(3, 2) + "1234567"}}, kEnds},
      {{{4, ""}, {7, "123456789"}}, kEnds},
      {{{4, ""}, {7, Number(5, 2) + Number(1, 8) + "name"}}, kEnds},
      {{{4, ""}, {7, Number(2, 2) + Number(~0ULL, 8) + std::string("n\0v", 3)}}, kEnds},
      {{{4, ""},
        {7,
         Number(7, 2) + Number(65537, 8) + std::string("user.x\0", 7) + std::string(65537, 'v')}},
       {0x4001A, 0x40003, 0xFFF1}},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(Restore(test.chunks, u"f"), test.codes) << &test - kCases;
    EXPECT_FALSE(Exists("f"));
  }
  // A target ends where it says, and more may follow.
  EXPECT_EQ(
      Restore({{6, Describe(33, 5, 0) + Number(3, 2) + std::string("a\0b\0c\0XYZUV", 11)}}, u"l"),
      kDone);
  EXPECT_EQ(std::filesystem::read_symlink(folder_ / "l"), "abc");
}

std::string Segment(std::uint32_t id, std::uint64_t size, std::uint32_t name,
                    const std::string& rest) {
  return Number(id, 4) + Number(0, 4) + Number(size, 8) + Number(name, 4) + rest;
}
std::string Sparse(std::uint64_t offset, const std::string& data) {
  return Segment(9, 8 + data.size(), 0, Number(offset, 8) + data);
}

TEST_F(BackupTest, ReadsTheStreamOfTheOtherPlatform) {
  const std::uint64_t far = 1 << 20;
  EXPECT_EQ(Restore({{2, Segment(1, 3, 0, "abc") + Segment(5, 20000, 6, std::string(20006, '?')) +
                             Sparse(3, "de") + Segment(1, 0, 4, "name") + Sparse(far, "xyz") +
                             Sparse(2 * far, "")}},
                    u"f"),
            kDone);
  std::string expected(2 * far, '\0');
  expected.replace(0, 5, "abcde");
  expected.replace(far, 3, "xyz");
  EXPECT_EQ(Content("f"), expected);
  EXPECT_LT(Stat("f").st_blocks * 512, static_cast<long>(far));  // the gaps are holes
  EXPECT_EQ(Restore({{2, ""}}, u"g"), kDone);
  EXPECT_EQ(Stat("g").st_size, 0);

  const std::uint64_t most = 0x7FFFFFFFFFFFFFFF;
  const std::pair<std::string, Codes> kBad[] = {
      {Sparse(4, "abcd") + Sparse(7, "x"), kDamaged},
      {Segment(1, 2, 0, "ab") + Segment(1, 2, 0, "ab"), kDamaged},
      {Segment(9, 7, 0, "1234567"), kDamaged},
      {Segment(1, ~0ULL, 0, ""), kDamaged},
      {Segment(9, ~0ULL, 0, Number(0, 8)), kDamaged},
      {Segment(9, 1ULL << 63, 0, Number(0, 8)), kDamaged},
      {Segment(9, 9, 0, Number(~0ULL, 8) + "x"), kDamaged},
      {Segment(9, 9, 0, Number(most, 8) + "x"), kDamaged},
      {Segment(2, ~0ULL - 9, 5, ""), kDamaged},
      {Segment(2, most, 1, ""), kDamaged},
      {Segment(2, most, 0, "few"), kEnds},
      {Segment(1, 3, 0, "ab"), kEnds},
      {Segment(1, 3, 0, "abc").substr(0, 19), kEnds},
      {Segment(9, 12, 0, "1234567"), kEnds},
  };
  for (const auto& [stream, codes] : kBad) {
    EXPECT_EQ(Restore({{2, stream}}, u"h"), codes) << stream.size();
    EXPECT_FALSE(Exists("h"));
  }
}

}  // namespace
}  // namespace Core
