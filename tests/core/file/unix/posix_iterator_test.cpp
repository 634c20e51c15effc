#include "core/file/unix/posix_iterator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/file/unix/the_identifier.h"
#include "tests/core/file/unix/file_support.h"

namespace {

int status_calls = 0;

int CountedStatus(int directory, const char* path, struct stat* status, int flags) {
  ++status_calls;
  return static_cast<int>(::syscall(SYS_newfstatat, directory, path, status, flags));
}

}  // namespace

// Stand before those of the C library, and count.
extern "C" int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  return CountedStatus(directory, path, status, flags);
}
extern "C" int lstat(const char* path, struct stat* status) noexcept {
  return CountedStatus(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}
extern "C" int stat(const char* path, struct stat* status) noexcept {
  return CountedStatus(AT_FDCWD, path, status, 0);
}

namespace Core {
namespace {

using TestSupport::Codes;
using TestSupport::CodesOf;
using TestSupport::ReadWhole;
using TestSupport::StatusOf;
using TestSupport::WriteWhole;

class PosixIterator : public testing::Test {
 protected:
  std::string ReadEntry(std::unique_ptr<ri_file> file) {
    if (file == nullptr) return "(not opened)";
    std::string text(file->GetSize(), '?');
    Read(*file, text.data(), text.size());
    return text;
  }

  const TestSupport::TemporaryFolder folder_;
  posix_dir dir_{folder_.GetPath()};
};

TEST_F(PosixIterator, WalksOverAllNames) {
  // The content of each file is its name.
  const std::vector<std::string> names = {
      "plain", ".hidden",      "..",       std::string(255, 'n'), "\xFF\xFE",
      "\x80",  "\xEF\xA2\x80", "\xC3\xA4", "a\n\x01\\b",          "..."};
  for (const std::string& name : names) {
    if (name != "..") WriteWhole(folder_ / name, name);
  }
  std::map<std::string, std::unique_ptr<file_identifier>> found;
  const std::unique_ptr<i_dir::iterator> entry = dir_.GetIterator();
  ASSERT_NE(entry, nullptr);
  for (; !entry->HasFailed(); entry->Next()) {
    const std::string name = entry->GetNarrowName();
    found[name] = entry->GetIdentifier();
    EXPECT_EQ(entry->IsHidden(), name[0] == '.');
    EXPECT_EQ(entry->GetType(), kRegularEntry);
    // Also where the text of the name leads to another file.
    EXPECT_EQ(ReadEntry(dir_.OpenRead(*entry, true)), name);
    if (name != "\xEF\xA2\x80") {
      EXPECT_EQ(ReadEntry(dir_.OpenRead(entry->GetName(), true)), name);
      EXPECT_STREQ(dir_.GetIterator(entry->GetName())->GetNarrowName(), name.c_str());
    }
    EXPECT_EQ(std::u16string(entry->GetAlternateName()), entry->GetName());
  }
  EXPECT_EQ(CodesOf(entry->GetError()), Codes{0x40002});
  EXPECT_EQ(TestSupport::ParameterOf(entry->GetError(), "path"), folder_.GetPath());
  EXPECT_EQ(std::u16string(entry->GetName()), u"");
  EXPECT_STREQ(entry->GetNarrowName(), "");
  EXPECT_EQ(entry->GetIdentifier(), nullptr);
  EXPECT_TRUE(entry->IsHidden());
  EXPECT_EQ(dir_.OpenRead(*entry, true), nullptr);
  EXPECT_EQ(found.size(), names.size() - 1);
  for (const auto& [name, identifier] : found) {
    ASSERT_NE(identifier, nullptr);
    const std::unique_ptr<file_identifier> clone = identifier->Clone();
    EXPECT_EQ(ReadEntry(dir_.OpenRead(clone.get(), false)), name);
    EXPECT_STREQ(dir_.GetIterator(clone.get())->GetNarrowName(), name.c_str());
    EXPECT_EQ(dir_.CompareIdentifiers(clone.get(), identifier.get()), 0);
  }
  const auto empty = the_identifier::Create(u"", "");
  EXPECT_GT(dir_.CompareIdentifiers(found["plain"].get(), found[".hidden"].get()), 0);
  EXPECT_GT(dir_.CompareIdentifiers(found[".hidden"].get(), empty.get()), 0);
  EXPECT_LT(dir_.CompareIdentifiers(nullptr, found[".hidden"].get()), 0);
  EXPECT_EQ(dir_.CompareIdentifiers(nullptr, empty->Clone().get()), 0);
  EXPECT_EQ(dir_.GetIterator(empty.get()), nullptr);
  EXPECT_EQ(CodesOf(dir_.GetError()), Codes{0x40007});
}

TEST_F(PosixIterator, EndsAtOnceInAnEmptyDirectory) {
  const std::unique_ptr<i_dir::iterator> entry = dir_.GetIterator();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(CodesOf(dir_.GetError()), Codes());
  EXPECT_EQ(CodesOf(entry->GetError()), Codes{0x40002});
  EXPECT_EQ(entry->GetPermissions(), ~0u);
  EXPECT_EQ(posix_dir(folder_ / "missing").GetIterator(), nullptr);
  WriteWhole(folder_ / "file", "");
  posix_dir file(folder_ / "file");
  EXPECT_EQ(file.GetIterator(), nullptr);
  EXPECT_EQ(CodesOf(file.GetError()), (Codes{0x40007, 0xFFF1}));
  EXPECT_EQ(dir_.GetIterator(u"missing"), nullptr);
  EXPECT_EQ(CodesOf(dir_.GetError()), (Codes{0x40011, 0xFFF1}));
}

TEST_F(PosixIterator, TellsWhatTheSystemTells) {
  WriteWhole(folder_ / "file", std::string(5000, 'x'));
  ASSERT_EQ(::link((folder_ / "file").c_str(), (folder_ / "hard").c_str()), 0);
  ASSERT_EQ(::mkdir((folder_ / "dir").c_str(), 0710), 0);
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod((folder_ / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(::symlink("to/\xFF", (folder_ / "link").c_str()), 0);
  const timespec times[] = {{1'000'000'000, 1'999'999}, {-1, 500'000'000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (folder_ / "file").c_str(), times, 0), 0);
  const std::map<std::string, entry_type> types = {
      {"file", kRegularEntry}, {"hard", kRegularEntry},  {"dir", kDirEntry},
      {"fifo", kFifoEntry},    {"socket", kSocketEntry}, {"link", kSymLinkEntry}};
  const auto check = [&](i_dir::iterator& entry, const std::string& path) {
    const struct stat status = StatusOf(path);
    EXPECT_EQ(entry.GetSize(), static_cast<std::uint64_t>(status.st_size));
    EXPECT_EQ(entry.GetAllocatedSize(), static_cast<std::uint64_t>(status.st_blocks) * 512);
    EXPECT_EQ(entry.GetPermissions(), status.st_mode);
    EXPECT_EQ(entry.GetOwner(), status.st_uid);
    EXPECT_EQ(entry.GetGroup(), status.st_gid);
    EXPECT_EQ(entry.GetLinkCount(), status.st_nlink);
    EXPECT_EQ(entry.GetFileId(), status.st_ino);
    EXPECT_EQ(makedev(entry.GetDeviceMajor(), entry.GetDeviceMinor()), status.st_rdev);
    EXPECT_EQ(entry.GetChangeTime() / 1000, static_cast<std::uint64_t>(status.st_ctim.tv_sec));
    EXPECT_EQ(entry.GetLinkTarget() != nullptr, S_ISLNK(status.st_mode));
  };
  std::size_t count = 0;
  for (const auto entry = dir_.GetIterator(); !entry->HasFailed(); entry->Next(), ++count) {
    const std::string name = entry->GetNarrowName();
    EXPECT_EQ(entry->GetType(), types.at(name)) << name;
    check(*entry, folder_ / name);
    const std::unique_ptr<i_dir::iterator> self = dir_.GetIterator(entry->GetName());
    EXPECT_EQ(self->GetType(), types.at(name)) << name;
    check(*self, folder_ / name);
    self->Next();
    EXPECT_EQ(CodesOf(self->GetError()), Codes{0x4000E});
  }
  EXPECT_EQ(count, types.size());
  const std::unique_ptr<i_dir::iterator> file = dir_.GetIterator(u"file");
  EXPECT_EQ(file->GetAccessTime(), 1'000'000'000'001u);
  EXPECT_EQ(file->GetModifyTime(), static_cast<std::uint64_t>(-500));
  EXPECT_EQ(std::u16string(dir_.GetIterator(u"link")->GetLinkTarget()), u"to/\uF8FF");

  posix_dir root("/");
  const std::unique_ptr<i_dir::iterator> null = root.GetIterator(u"dev/null");
  ASSERT_NE(null, nullptr);
  EXPECT_EQ(null->GetType(), kCharacterDeviceEntry);
  check(*null, "/dev/null");
  EXPECT_STREQ(null->GetNarrowName(), "null");
  // By the entry's own place, whatever directory is asked.
  EXPECT_NE(dir_.OpenRead(*null, true), nullptr);
  const std::unique_ptr<i_dir::iterator> self = root.GetSelfIterator();
  EXPECT_EQ(std::u16string(self->GetName()), u"/");
  EXPECT_EQ(self->GetType(), kDirEntry);
  EXPECT_EQ(root.OpenDir(*null)->GetNarrowPath(), "/dev/null");
}

TEST_F(PosixIterator, AsksForAStatusOnceAndOnlyWhenNeeded) {
  constexpr int kFiles = 20;
  for (int i = 0; i != kFiles; ++i) WriteWhole(folder_ / ("file" + std::to_string(i)), "");
  ASSERT_EQ(::symlink("x", (folder_ / "link").c_str()), 0);
  status_calls = 0;
  for (const auto entry = dir_.GetIterator(); !entry->HasFailed(); entry->Next()) {
    entry->GetName();
    entry->GetIdentifier();
    entry->GetType();
    entry->IsHidden();
  }
  // One at most is the C library's when it opens the directory.
  if (status_calls > 1) GTEST_SKIP() << "this file system doesn't tell the types of entries";
  status_calls = 0;
  for (const auto entry = dir_.GetIterator(); !entry->HasFailed(); entry->Next()) {
    const int before = status_calls;
    entry->GetSize();
    entry->GetModifyTime();
    entry->GetLinkTarget();
    entry->GetPermissions();
    entry->StatFile();
    EXPECT_EQ(status_calls, before + 1) << entry->GetNarrowName();
  }
  status_calls = 0;
  const std::unique_ptr<i_dir::iterator> entry = dir_.GetIterator(u"link");
  entry->GetType();
  entry->GetLinkTarget();
  entry->GetSize();
  EXPECT_EQ(status_calls, 1);
}

TEST_F(PosixIterator, KeepsWhatHappensToItsEntry) {
  WriteWhole(folder_ / "file", "");
  ASSERT_EQ(::symlink("x", (folder_ / "link").c_str()), 0);
  const std::unique_ptr<i_dir::iterator> link = dir_.GetIterator(u"link");
  ASSERT_EQ(::unlink((folder_ / "link").c_str()), 0);
  EXPECT_EQ(link->GetLinkTarget(), nullptr);
  ASSERT_EQ(::symlink("x", (folder_ / "link").c_str()), 0);
  EXPECT_EQ(link->GetLinkTarget(), nullptr);
  EXPECT_FALSE(link->HasFailed());
  ASSERT_EQ(::unlink((folder_ / "link").c_str()), 0);

  const std::unique_ptr<i_dir::iterator> entry = dir_.GetIterator();
  ASSERT_EQ(::unlink((folder_ / "file").c_str()), 0);
  EXPECT_EQ(entry->GetLinkCount(), 1u);
  EXPECT_EQ(CodesOf(entry->GetError()), (Codes{0x40011, 0xFFF1}));
  EXPECT_EQ(TestSupport::ParameterOf(entry->GetError(), "path"), folder_ / "file");
  EXPECT_EQ(entry->GetOwner() & entry->GetGroup() & entry->GetPermissions(), ~0u);
  EXPECT_EQ(entry->GetSize() + entry->GetModifyTime() + entry->GetFileId(), 0u);
  entry->Next();
  EXPECT_EQ(entry->GetError().GetCode(), 0x40011u);
  entry->SetError({});
  entry->Next();
  EXPECT_EQ(CodesOf(entry->GetError()), Codes{0x40002});
}

TEST_F(PosixIterator, HasDefaultsThatKnowNothing) {
  using base = i_dir::iterator;
  const std::unique_ptr<base> found = dir_.GetSelfIterator();
  base& entry = *found;
  EXPECT_EQ(entry.base::GetSize() | entry.base::GetModifyTime() | entry.GetCreateTime(), 0u);
  EXPECT_EQ(entry.GetDOSAttributes() & entry.base::GetPermissions() & entry.base::GetOwner(), ~0u);
  EXPECT_EQ(entry.base::GetLinkCount(), 1u);
  EXPECT_EQ(entry.ReservedQuery4(), 1);
  entry.base::StatFile();
  EXPECT_EQ(CodesOf(entry.GetError()), Codes{0x4000E});
}

}  // namespace
}  // namespace Core
