#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "core/file/unix/posix_dir.h"
#include "tests/core/file/streams/backup_streams.h"
#include "tests/support/run_program.h"
#include "tests/support/temporary_folder.h"
#include "tools/objchunk/chunk_archive.h"

// objchunk as its users see it, on real trees.

namespace ChunkTool {
namespace {

using TestSupport::Number;
using TestSupport::ProgramResult;

class ChunkToolTest : public testing::Test {
 protected:
  ChunkToolTest() { std::filesystem::create_directory(out_); }

  static ProgramResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), OBJCHUNK);
    return TestSupport::RunProgram(OBJCHUNK, arguments);
  }
  static std::string Do(const std::vector<std::string>& arguments) {
    const ProgramResult outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  static std::string Fail(const std::vector<std::string>& arguments) {
    const ProgramResult outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 1) << outcome.out;
    return outcome.err;
  }
  static std::string Read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  // Everything that comes back, by name.
  static std::map<std::string, std::string> Describe(const std::string& root) {
    std::map<std::string, std::string> result;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
      struct stat status {};
      EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
      std::string text;
      for (const auto number : {std::uint64_t{status.st_mode}, std::uint64_t{status.st_uid},
                                std::uint64_t{status.st_gid}, std::uint64_t{status.st_rdev}}) {
        text.append(std::to_string(number)).append(" ");
      }
      if (entry.is_symlink()) {
        text.append(std::filesystem::read_symlink(entry.path()).native());
      } else if (!S_ISDIR(status.st_mode)) {
        text += std::to_string(status.st_mtim.tv_sec) + "." +
                std::to_string(status.st_mtim.tv_nsec / 1000000);
      }
      if (S_ISREG(status.st_mode)) {
        char value[64];
        const ssize_t size = ::getxattr(entry.path().c_str(), "user.t", value, sizeof(value));
        text.append(" ").append(value, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        text += Read(entry.path());
      }
      result[entry.path().native().substr(root.size())] = text;
    }
    return result;
  }

  // An archive of entries whose only chunk is a description, or data.
  void MakeArchive(
      const std::vector<std::pair<std::string, std::pair<std::uint8_t, std::string>>>& entries) {
    Core::posix_dir root("/");
    const auto file = root.Open(archive_, O_RDWR | O_CREAT | O_TRUNC, true, 0600);
    ArchiveWriter writer(*file);
    for (const auto& [name, chunk] : entries) {
      writer.StartEntry(name);
      EXPECT_FALSE(Core::WriteChunk(writer, chunk.first, chunk.second.data(), chunk.second.size())
                       .IsFailure());
      writer.EndEntry();
    }
    writer.Commit();
  }
  static std::pair<std::uint8_t, std::string> Link(const std::string& target) {
    std::string content = Number(24 + 2 * target.size(), 4) + Number(5, 4) + Number(::getuid(), 4) +
                          Number(::getgid(), 4) + Number(0120777, 4) + Number(target.size(), 2);
    for (const char letter : target) content += {letter, '\0'};
    return {6, content + std::string(2, '\0')};
  }

  const TestSupport::TemporaryFolder folder_;
  const std::string archive_ = folder_ / "a.oca";
  const std::string in_ = folder_ / "in";
  const std::string out_ = folder_ / "out";
};

TEST_F(ChunkToolTest, ATreeComesBack) {
  std::vector<std::string> folders{in_};
  for (int i = 0; i < 40; ++i)
    folders.push_back(folders[static_cast<std::size_t>(i / 2)] + "/d" + std::to_string(i));
  folders.push_back(in_ + "/g\xff");
  folders.push_back(in_ + "/e\xEF\xA2\x80");  // U+F880, as it should be encoded
  int number = 0;
  for (const std::string& folder : folders) {
    std::filesystem::create_directory(folder);
    for (int i = 0; i < 8; ++i, ++number) {
      const std::string file = folder + "/f" + std::to_string(i);
      std::string text;
      while (text.size() < static_cast<std::size_t>(number * number))
        text += std::to_string(number) + "\n";
      Write(file, text);
      ::chmod(file.c_str(), static_cast<mode_t>(number * 37 & 0777) | 0400);
      ::setxattr(file.c_str(), "user.t", text.data(), std::min<std::size_t>(text.size(), 60), 0);
      const timespec times[] = {{1, 0}, {1000000000 + number, number * 1000000}};
      ::utimensat(AT_FDCWD, file.c_str(), times, 0);
    }
    EXPECT_EQ(::symlink("f1", (folder + "/l").c_str()), 0);
    EXPECT_EQ(::mkfifo((folder + "/p").c_str(), 0620), 0);
  }
  Write(in_ + "/n\x80", "raw");
  Write(in_ + "/n\xEF\xA2\x80", "encoded");
  Write(in_ + "/large", std::string(3000000, 'x'));
  ::truncate((in_ + "/sparse").c_str(), 0);
  ::chmod(folders[5].c_str(), 0500);
  const std::size_t count = 1 + Describe(in_).size();

  EXPECT_EQ(Do({"save", in_, archive_}), std::to_string(count) + " entries saved, 0 failed\n");
  const std::string lines = Do({"list", archive_, "--check"});
  EXPECT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')), count);
  EXPECT_EQ(Do({"restore", archive_, out_}),
            std::to_string(count) + " entries restored, 0 failed\n");
  EXPECT_EQ(Describe(out_ + "/in"), Describe(in_));
  // Nothing is replaced without being asked for.
  Write(out_ + "/in/large", "mine");
  const std::string said = Fail({"restore", archive_, out_});
  EXPECT_NE(said.find("objchunk: in/large: The file (folder) already exists. (0x40013)\n"),
            std::string::npos);
  EXPECT_EQ(Read(out_ + "/in/large"), "mine");
  Do({"restore", archive_, out_, "--overwrite"});
  EXPECT_EQ(Describe(out_ + "/in"), Describe(in_));
  ::chmod(folders[5].c_str(), 0700);
}

TEST_F(ChunkToolTest, SavesAddUpAndTheLastOneCounts) {
  Write(in_, "one");
  Do({"save", in_, archive_});
  Write(in_, "two");
  Do({"save", in_, archive_});
  Do({"restore", archive_, out_});
  EXPECT_EQ(Read(out_ + "/in"), "two");
  // In the tree that is saved, the archive is passed over.
  EXPECT_EQ(Do({"save", folder_.GetPath(), archive_}), "4 entries saved, 0 failed\n");
  struct stat status {};
  EXPECT_EQ(::stat(archive_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_NE(Fail({"save", folder_ / "none", folder_ / "new"}), "");
  EXPECT_FALSE(std::filesystem::exists(folder_ / "new"));
  EXPECT_EQ(Run({"restore", archive_}).status, 2);
}

TEST_F(ChunkToolTest, NothingIsWrittenOutsideOfTheFolder) {
  const std::pair<std::uint8_t, std::string> kData{4, "bad"};
  const std::string outside = folder_ / "outside";
  std::filesystem::create_directory(outside);
  Write(outside + "/f", "good");
  for (const std::string name : {"/x", "../x", "a/../../x", "a//x", "./x", "x/", ".."}) {
    MakeArchive({{name, kData}});
    EXPECT_NE(Fail({"restore", archive_, out_}).find("he name"), std::string::npos) << name;
  }
  for (const std::string target : {"/etc", "..", "../outside", "d/../..", "./../x"}) {
    MakeArchive({{"l", Link(target)}});
    EXPECT_NE(Fail({"restore", archive_, out_}).find("leads out"), std::string::npos) << target;
  }
  EXPECT_TRUE(std::filesystem::is_empty(out_));
  // Neither through links of the archive nor through those that are there.
  MakeArchive({{"l", Link(outside)}, {"l/f", kData}, {"k", Link(outside + "/f")}, {"k", kData}});
  Fail({"restore", archive_, out_, "--outside-links", "--overwrite"});
  EXPECT_EQ(Read(outside + "/f"), "good");
  EXPECT_EQ(Read(out_ + "/k"), "bad");
  MakeArchive({{"k", kData}});
  std::filesystem::remove(out_ + "/k");
  std::filesystem::create_symlink(outside + "/f", out_ + "/k");
  Fail({"restore", archive_, out_});
  EXPECT_EQ(Read(outside + "/f"), "good");
  MakeArchive({{"d/l", Link("../d/f")}});
  EXPECT_EQ(Do({"restore", archive_, out_}), "1 entries restored, 0 failed\n");
}

TEST_F(ChunkToolTest, DamageIsToldAndTheRestComesBack) {
  MakeArchive({{"a", {4, "first"}}, {"b", {4, std::string(200000, 'x')}}, {"c", {4, "third"}}});
  const std::string whole = Read(archive_);
  // The frame of the name, the chunk's, the end's.
  const std::size_t first = 64 + 25 + 29 + 24;
  std::string bytes = whole;
  bytes[first + 25 + 24 + 100] ^= 1;
  Write(archive_, bytes);
  EXPECT_NE(Fail({"list", archive_, "--check"}), "");
  const ProgramResult outcome = Run({"restore", archive_, out_});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "2 entries restored, 1 failed\n");
  EXPECT_EQ(Read(out_ + "/a") + Read(out_ + "/c"), "firstthird");
  EXPECT_FALSE(std::filesystem::exists(out_ + "/b"));

  for (std::size_t size = 0; size < whole.size(); size += size < 400 ? 13 : 9999) {
    Write(archive_, whole.substr(0, size));
    EXPECT_NE(Fail({"restore", archive_, out_, "--overwrite"}), "") << size;
    if (size == 0) continue;
    EXPECT_NE(Fail({"save", in_, archive_}), "");
    EXPECT_EQ(Read(archive_).size(), size);
  }
  // The tail of a save that died: its whole entries are kept, the rest goes.
  MakeArchive({{"a", {4, "first"}}});
  const std::string before = Read(archive_);
  EXPECT_EQ(before, whole.substr(0, 16) + before.substr(16, 48) + whole.substr(64, first - 64));
  Write(archive_, before + whole.substr(first, whole.size() - first - 10));
  EXPECT_NE(Fail({"list", archive_}).find("didn't finish"), std::string::npos);
  Write(in_, "new");
  const ProgramResult saved = Run({"save", in_, archive_});
  EXPECT_EQ(saved.status, 0);
  EXPECT_NE(saved.err.find("were cut off"), std::string::npos);
  const std::string lines = Do({"list", archive_, "--check"});
  EXPECT_NE(lines.find("\t200000\t-\tb\n"), std::string::npos);
  EXPECT_EQ(lines.find("\tc\n"), std::string::npos);
  EXPECT_EQ(lines.substr(lines.rfind('\t')), "\tin\n");
}

}  // namespace
}  // namespace ChunkTool
