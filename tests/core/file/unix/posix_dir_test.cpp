#include "core/file/unix/posix_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/file/unix/join_path.h"
#include "core/file/unix/posix_error.h"
#include "core/include/file/root_dir.h"
#include "tests/core/file/unix/file_support.h"
#include "tests/support/text.h"

namespace Core {
namespace {

using TestSupport::Codes;
using TestSupport::CodesOf;
using TestSupport::ParameterOf;
using TestSupport::ReadWhole;
using TestSupport::StatusOf;
using TestSupport::WriteWhole;

constexpr std::uint32_t kPosix = 0xFFF1;

class PosixDir : public testing::Test {
 protected:
  Codes Codes_() const { return CodesOf(dir_.GetError()); }
  std::string Parameter(const char* name) const { return ParameterOf(dir_.GetError(), name); }
  // With the rights of an ordinary user in the folder.
  bool AsUser(const std::function<bool()>& body) const {
    EXPECT_EQ(::chmod(folder_.GetPath().c_str(), 0755), 0);
    return TestSupport::AsUser(body);
  }

  const TestSupport::TemporaryFolder folder_;
  posix_dir dir_{folder_.GetPath()};
};

TEST(JoinedPaths, AreNormalisedAndStayBelowTheRoot) {
  static const struct {
    const char* path;
    const char* relative;
    const char* joined;
  } kPaths[] = {
      {"/x", "a/../../b", "/b"}, {"/", "..", "/"},
      {"/x/y", "..", "/x"},      {"/x", "..", "/"},
      {"/x", "../../..", "/"},   {"/x", ".", "/x"},
      {"/", "a", "/a"},          {"/x", "/a//b/./", "/a/b"},
      {"/x", "//", "/"},         {"/x", "a/...", "/x/a/..."},
      {"/x", "/..", "/"},        {"/x", "..a/.b", "/x/..a/.b"},
  };
  for (const auto& [path, relative, joined] : kPaths) {
    EXPECT_EQ(JoinPath(path, relative), joined) << path << " and " << relative;
  }
}

TEST(SystemErrors, HaveCodesOfTheirOwn) {
  static const std::pair<int, std::uint32_t> kErrors[] = {
      {EPERM, 0x40014},  {EACCES, 0x40014}, {ETXTBSY, 0x40014}, {ENOENT, 0x40011},
      {ENOMEM, 0x40006}, {EBUSY, 0x4000B},  {ENODEV, 0x4000B},  {ENOMEDIUM, 0x4000B},
      {EEXIST, 0x40013}, {ENOSPC, 0x40004}, {EROFS, 0x4000C},   {EOPNOTSUPP, 0x4000E},
      {EIO, 0x40007},
  };
  for (const auto& [errnum, code] : kErrors) {
    const Common::Error error = MakePosixError(kFileOpenFailure, errnum, {}, "/p");
    EXPECT_EQ(CodesOf(error), (Codes{code, kPosix})) << errnum;
    EXPECT_EQ(ParameterOf(error, "path"), "/p");
  }
  EXPECT_EQ(CodesOf(MakePosixError(kFileLockFailure, EACCES, {})), (Codes{0x40017, kPosix}));
}

TEST_F(PosixDir, KeepsTheErrorOfItsLastOperation) {
  EXPECT_EQ(dir_.OpenRead(u"missing", false), nullptr);
  EXPECT_EQ(Codes_(), (Codes{0x40011, kPosix}));
  EXPECT_EQ(Parameter("path"), folder_ / "missing");
  dir_.CreateDir(u"sub", nullptr);
  EXPECT_EQ(Codes_(), Codes());
  EXPECT_EQ(StatusOf(folder_ / "sub").st_mode & 0777, 0755u);
  dir_.CreateDir(u"sub", nullptr);
  EXPECT_EQ(Codes_(), (Codes{0x40013, kPosix}));
  ASSERT_EQ(::symlink("loop", (folder_ / "loop").c_str()), 0);
  EXPECT_EQ(dir_.OpenReadWrite(u"loop", true), nullptr);
  EXPECT_EQ(Codes_(), (Codes{0x40007, kPosix}));
  ioctl_record unknown{MakeIoctlCode("GMFN")};
  dir_.RemoveDir(u"sub");
  EXPECT_EQ(Codes_(), Codes());
  dir_.IOCTL(unknown);
  EXPECT_EQ(Codes_(), Codes{0x4000E});
}

TEST_F(PosixDir, RefusesEmptyAndImpossiblePaths) {
  static const access_rights kRights{0, 0600};
  using D = posix_dir;
  using P = const char16_t*;
  static const struct {
    std::uint32_t code;
    void (*call)(D&, P);
  } kCalls[] = {
      {0x40007, [](D& d, P p) { d.OpenRead(p, true); }},
      {0x40007, [](D& d, P p) { d.OpenWrite(p, true); }},
      {0x40007, [](D& d, P p) { d.OpenReadWrite(p, true); }},
      {0x40007, [](D& d, P p) { d.OpenDir(p); }},
      {0x40007, [](D& d, P p) { d.GetIterator(p); }},
      {0x40008, [](D& d, P p) { d.Remove(p); }},
      {0x40009, [](D& d, P p) { d.Rename(p, u"a"); }},
      {0x40009, [](D& d, P p) { d.Rename(u"a", p); }},
      {0x4000A, [](D& d, P p) { d.CreateHardLink(p, u"a"); }},
      {0x4000A, [](D& d, P p) { d.CreateHardLink(u"a", p); }},
      {0x4000A, [](D& d, P p) { d.CreateSymLink(p, u"a"); }},
      {0x4000A, [](D& d, P p) { d.CreateSymLink(u"a", p); }},
      {0x4000A, [](D& d, P p) { d.CreateDir(p, nullptr); }},
      {0x40008, [](D& d, P p) { d.RemoveDir(p); }},
      {0x40007, [](D& d, P p) { d.SetAccessRights(p, &kRights); }},
      {0x40007, [](D& d, P p) { d.SetUnixOwner(p, 0, 0); }},
      {0x4000A, [](D& d, P p) { d.CreateDeviceNode(p, kFifoEntry, 0, 0, 0); }},
      {0x40001,
       [](D& d, P p) {
         entry_times_record times{{kSetEntryTimes}, p, 0, 0, 0};
         d.IOCTL(times);
       }},
  };
  int number = 0;
  for (const auto& [code, call] : kCalls) {
    for (const char16_t* const path : {u"", u"\xD800", static_cast<const char16_t*>(nullptr)}) {
      dir_.SetError({});
      call(dir_, path);
      EXPECT_EQ(Codes_(), Codes{code}) << number;
      EXPECT_EQ(Parameter("path") + Parameter("path1"), "--") << number;
    }
    ++number;
  }
  EXPECT_EQ(dir_.Create(u"", false, nullptr), nullptr);
  EXPECT_EQ(Codes_(), (Codes{0x4000A, 0x40007}));
  EXPECT_EQ(dir_.OpenRead(static_cast<const file_identifier*>(nullptr), true), nullptr);
  EXPECT_EQ(Codes_(), Codes{0x40007});
  dir_.SetAccessRights(u"a", nullptr);
  EXPECT_EQ(Codes_(), Codes{0x40014});
}

TEST_F(PosixDir, ShortensAFileOnlyOnceItIsLocked) {
  const std::string path = folder_ / "file";
  WriteWhole(path, "content");
  {
    const TestSupport::LockHolder reader(path, F_RDLCK, 3, 1);
    EXPECT_NE(dir_.OpenRead(u"file", false), nullptr);
    EXPECT_EQ(dir_.Create(u"file", false, nullptr), nullptr);
    EXPECT_EQ(Codes_(), (Codes{0x40014, 0x40017, kPosix}));
    EXPECT_EQ(dir_.GetError().GetMessage(), u"Access to the file is denied.");
    EXPECT_EQ(dir_.OpenWrite(u"file", false), nullptr);
    EXPECT_EQ(ReadWhole(path), "content");
    EXPECT_NE(dir_.Create(u"file", true, nullptr), nullptr);
    EXPECT_EQ(ReadWhole(path), "");
    WriteWhole(path, "content");
  }
  {
    const TestSupport::LockHolder writer(path, F_WRLCK, 3, 1);
    EXPECT_EQ(dir_.OpenRead(u"file", false), nullptr);
    EXPECT_EQ(Codes_(), (Codes{0x40014, 0x40017, kPosix}));
    EXPECT_NE(dir_.OpenReadWrite(u"file", true), nullptr);
  }
  const std::unique_ptr<ro_file> file = dir_.Create(u"file", false, nullptr);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadWhole(path), "");
  const access_rights rights{0, 0600};
  EXPECT_NE(dir_.Create(u"new", false, &rights), nullptr);
  EXPECT_EQ(StatusOf(folder_ / "new").st_mode & 0777, 0600u);
  EXPECT_EQ(dir_.Create(u"new/x", false, nullptr), nullptr);
  EXPECT_EQ(Codes_(), (Codes{0x4000A, 0x40007, kPosix}));
}

TEST_F(PosixDir, MakesRenamesAndRemovesEntries) {
  WriteWhole(folder_ / "file", "content");
  dir_.CreateHardLink(u"hard", u"file");
  EXPECT_EQ(StatusOf(folder_ / "hard").st_ino, StatusOf(folder_ / "file").st_ino);
  dir_.CreateSymLink(u"soft", u"../no/./such");
  char target[20] = {};
  EXPECT_EQ(::readlink((folder_ / "soft").c_str(), target, sizeof target), 12);
  EXPECT_STREQ(target, "../no/./such");
  dir_.Rename(u"hard", u"./renamed");
  EXPECT_EQ(ReadWhole(folder_ / "renamed"), "content");
  EXPECT_EQ(Codes_(), Codes());

  const std::string renamed = folder_ / "renamed";
  const std::string place = folder_ / "renamed/x";
  dir_.Rename(u"renamed", u"renamed/x");
  EXPECT_EQ(Codes_(), (Codes{0x40009, kPosix}));
  EXPECT_EQ(Parameter("path1") + Parameter("path2"), renamed + place);
  dir_.CreateHardLink(u"renamed/x", u"renamed");
  EXPECT_EQ(Codes_(), (Codes{0x4000A, kPosix}));
  EXPECT_EQ(Parameter("path1") + Parameter("path2"), place + renamed);
  dir_.Remove(u"soft");
  dir_.Remove(u"renamed");
  EXPECT_EQ(Codes_(), Codes());
  EXPECT_EQ(ReadWhole(folder_ / "file"), "content");
  dir_.CreateDir(u"sub", nullptr);
  WriteWhole(folder_ / "sub/inner", "");
  dir_.RemoveDir(u"sub");
  EXPECT_EQ(Codes_(), (Codes{0x40008, kPosix}));
}

TEST_F(PosixDir, ChangesRightsOfFilesAndOwnersOfLinks) {
  WriteWhole(folder_ / "file", "");
  ASSERT_EQ(::symlink("file", (folder_ / "soft").c_str()), 0);
  dir_.SetUnixPermissions(u"file", 04711);
  EXPECT_EQ(StatusOf(folder_ / "file").st_mode & 07777, 04711u);
  dir_.SetUnixPermissions(u"soft", 0777);
  EXPECT_EQ(Codes_(), Codes{0x4000E});
  const access_rights rights{0777, 0600};
  dir_.SetAccessRights(u"file", &rights);
  EXPECT_EQ(Codes_(), Codes());
  EXPECT_EQ(StatusOf(folder_ / "file").st_mode & 07777, 0600u);
  dir_.SetUnixOwner(u"missing", 1, 1);
  EXPECT_EQ(Codes_(), (Codes{0x40011, kPosix}));

  WriteWhole(folder_ / "secret", "");
  ASSERT_EQ(::chmod((folder_ / "secret").c_str(), 0), 0);
  EXPECT_TRUE(AsUser([&] {
    const Codes denied{0x40014, kPosix};
    if (dir_.OpenRead(u"secret", false) != nullptr || Codes_() != denied) return false;
    dir_.SetUnixOwner(u"file", 0, 0);
    return Codes_() == denied;
  }));
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  dir_.SetUnixOwner(u"soft", 12, ~std::uint32_t{0});
  EXPECT_EQ(StatusOf(folder_ / "soft").st_uid, 12u);
  EXPECT_EQ(StatusOf(folder_ / "soft").st_gid, StatusOf(folder_ / "file").st_gid);
  EXPECT_EQ(StatusOf(folder_ / "file").st_uid, 0u);
}

TEST_F(PosixDir, MakesNodes) {
  static const struct {
    entry_type type;
    mode_t bits;
  } kNodes[] = {{kRegularEntry, 0x8000}, {kFifoEntry, 0x1000}, {kSocketEntry, 0xC000}};
  for (const auto& [type, bits] : kNodes) {
    dir_.CreateDeviceNode(u"node", type, bits | 0640, 0, 0);
    EXPECT_EQ(Codes_(), Codes());
    EXPECT_EQ(StatusOf(folder_ / "node").st_mode, bits | 0640);
    dir_.Remove(u"node");
  }
  for (const entry_type type : {kSymLinkEntry, kOtherFileEntry, kDirEntry}) {
    dir_.CreateDeviceNode(u"node", type, 0640, 0, 0);
    EXPECT_EQ(Codes_(), Codes{0x4000A});
  }
  for (const entry_type type : {kCharacterDeviceEntry, kBlockDeviceEntry}) {
    dir_.CreateDeviceNode(u"device", type, 0600, 0x1FF, 0x12345);
    if (dir_.GetError().GetCode() == 0x40014) GTEST_SKIP() << "this process may make no devices";
    const struct stat status = StatusOf(folder_ / "device");
    EXPECT_EQ(status.st_mode, (type == kBlockDeviceEntry ? 0x6000u : 0x2000u) | 0600);
    EXPECT_EQ(status.st_rdev, makedev(0x1FF, 0x12345));
    dir_.Remove(u"device");
  }
}

TEST_F(PosixDir, OpensDirectoriesByTheirPaths) {
  posix_dir inner("/x/y");
  static const struct {
    const char16_t* path;
    const char* parent;
    const char16_t* leaf;
  } kPaths[] = {
      {u"a/b", "/x/y/a", u"b"},   {u"/a", "/", u"a"},         {u"a", "/x/y", u"a"},
      {u"a/b/", "/x/y/a/b", u""}, {u"../../../a", "/", u"a"}, {u"", "/x/y", u""},
  };
  for (const auto& [path, parent, leaf] : kPaths) {
    const char16_t* cursor = path;
    const std::unique_ptr<posix_dir> opened = inner.OpenParentDir(cursor);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->GetNarrowPath(), parent);
    EXPECT_EQ(std::u16string(cursor), leaf);
  }
  const char16_t* bad = u"\xD800/a";
  EXPECT_EQ(static_cast<o_dir&>(inner).OpenParentDir(bad), nullptr);
  EXPECT_EQ(bad[0], u'\xD800');

  EXPECT_EQ(std::u16string(inner.GetPath()), u"/x/y/");
  EXPECT_EQ(std::u16string(posix_dir("/").GetPath()), u"/");
  EXPECT_EQ(std::u16string(posix_dir("/\xFF").GetPath()), u"/\uF8FF/");
  const std::unique_ptr<i_dir> same = inner.OpenThisDir();
  EXPECT_EQ(inner.CompareDirs(same.get()), 0);
  EXPECT_EQ(inner.CompareDirs(inner.OpenDir(u"z").get()), 1);
  EXPECT_EQ(posix_dir("/").CompareDirs(&inner), 1);
  EXPECT_EQ(inner.CompareDirs(inner.OpenDir(u"../yz").get()), 2);
  EXPECT_EQ(inner.CompareDirs(inner.OpenDir(u"..").get()), 2);
  EXPECT_EQ(inner.CompareDirs(nullptr), 2);
  EXPECT_EQ(inner.GetDirKind(), 131u);
  EXPECT_TRUE(inner.IsCaseSensitive() && inner.IsSeparator(u'/') && !inner.IsSeparator(u'\\'));
}

TEST_F(PosixDir, FindsSpecialDirectories) {
  const auto find = [&](std::uint32_t id) {
    const std::unique_ptr<i_dir> found = dir_.OpenSpecialDir(id);
    return found == nullptr ? "" : TestSupport::Utf8(found->GetPath());
  };
  const char* const home = std::getenv("HOME");
  const std::string former = home != nullptr ? home : "";
  ::setenv("HOME", "/home//some/../one/", 1);
  EXPECT_EQ(find(143) + find(144) + find(145) + find(149) + find(156),
            "/var/lib//home/one//home/one//tmp//var/log/");
  ::setenv("HOME", "home", 1);
  EXPECT_EQ(find(144), "");
  EXPECT_EQ(Codes_(), Codes{0x40007});
  ::unsetenv("HOME");
  EXPECT_EQ(find(145), "");
  EXPECT_EQ(Codes_(), Codes{0x40007});
  if (home != nullptr) ::setenv("HOME", former.c_str(), 1);
  EXPECT_EQ(find(146), "");
  EXPECT_EQ(Codes_(), Codes{0x4000E});
}

TEST_F(PosixDir, KnowsItsFileSystem) {
  std::uint64_t total = 1;
  std::uint64_t free = 1;
  std::uint64_t available = 1;
  posix_dir missing(folder_ / "missing/very");
  missing.GetDriveSize(total, free, available);
  EXPECT_EQ(CodesOf(missing.GetError()), (Codes{0x40011, kPosix}));
  EXPECT_EQ(total + free + available, 0u);
  dir_.GetDriveSize(total, free, available);
  struct statvfs status {};
  ASSERT_EQ(::statvfs(folder_.GetPath().c_str(), &status), 0);
  EXPECT_EQ(total, status.f_bsize * status.f_blocks);
  EXPECT_TRUE(available <= free && free <= total && available != 0);

  system_path_record place{{kGetSystemPath}, {}, nullptr, 0, 0};
  const dev_t device = StatusOf(folder_.GetPath()).st_dev;
  missing.IOCTL(place);
  EXPECT_EQ(place.path, missing.GetPath());
  EXPECT_EQ(makedev(place.major_number, place.minor_number), device);
  WriteWhole(folder_ / "missing", "");  // in the way as a file
  missing.IOCTL(place);
  EXPECT_EQ(CodesOf(missing.GetError()), Codes());
  posix_dir("/missing").IOCTL(place);
  EXPECT_EQ(makedev(place.major_number, place.minor_number), StatusOf("/").st_dev);
}

TEST_F(PosixDir, SetsTimesOfAllButLinks) {
  ASSERT_EQ(::symlink("file", (folder_ / "soft").c_str()), 0);
  WriteWhole(folder_ / "file", "");
  entry_times_record times{{kSetEntryTimes}, u"file", 1'234'567'890'123, 5, 987'654'321'987};
  dir_.IOCTL(times);
  EXPECT_EQ(StatusOf(folder_ / "file").st_atim.tv_sec, 987'654'321);
  times.path = u"soft";
  times.modify_time = 0;
  dir_.IOCTL(times);
  EXPECT_EQ(Codes_(), Codes{0x4000E});
  EXPECT_EQ(StatusOf(folder_ / "file").st_mtim.tv_sec, 1'234'567'890);
  times.path = u"file";
  times.modify_time = static_cast<std::uint64_t>(-1'500);  // before 1970
  dir_.IOCTL(times);
  EXPECT_EQ(StatusOf(folder_ / "file").st_mtim.tv_sec, -2);
  EXPECT_EQ(StatusOf(folder_ / "file").st_mtim.tv_nsec, 500'000'000);
}

// Of the interfaces, which this class doesn't use all of.
TEST_F(PosixDir, HasDefaultsThatSupportNothing) {
  std::uint64_t sizes[3] = {1, 2, 3};
  ioctl_record record{kSetEntryTimes};
  const std::function<void()> kCalls[] = {
      [&] { EXPECT_EQ(dir_.i_dir::OpenSpecialDir(kTemporaryDir), nullptr); },
      [&] { dir_.i_dir::GetDriveSize(sizes[0], sizes[1], sizes[2]); },
      [&] { EXPECT_EQ(dir_.GetVolumeLabel(), nullptr); },
      [&] { dir_.rio_dir::IOCTL(record); },
      [&] { dir_.o_dir::IOCTL(record); },
      [&] { dir_.i_dir::EnableNotification(nullptr); },
      [&] { dir_.o_dir::CreateHardLink(u"a", u"b"); },
      [&] { dir_.o_dir::CreateSymLink(u"a", u"b"); },
      [&] { dir_.o_dir::SetAccessRights(u"a", nullptr); },
      [&] { dir_.SetDOSAttributes(u"a", 0); },
      [&] { dir_.o_dir::SetUnixPermissions(u"a", 0); },
      [&] { dir_.o_dir::SetUnixOwner(u"a", 0, 0); },
      [&] { dir_.o_dir::CreateDeviceNode(u"a", kFifoEntry, 0, 0, 0); },
  };
  for (const auto& call : kCalls) {
    dir_.SetError(Common::Error(0x40001, Common::LineTag{}));  // of an operation before
    call();
    EXPECT_EQ(Codes_(), Codes{0x4000E});
  }
  EXPECT_EQ(sizes[0] + sizes[1] + sizes[2], 0u);
  EXPECT_EQ(dir_.i_dir::OpenThisDir(), nullptr);
  EXPECT_EQ(dir_.i_dir::GetDirKind(), 137u);
  EXPECT_TRUE(dir_.i_dir::IsSeparator(u'/') && dir_.i_dir::IsSeparator(u'\\'));
}

// Clones while there is memory.
class SmallIdentifier final : public file_identifier {
 public:
  explicit SmallIdentifier(bool has_memory) : has_memory_(has_memory) {}
  std::unique_ptr<file_identifier> Clone() const noexcept override {
    return has_memory_ ? std::make_unique<SmallIdentifier>(true) : nullptr;
  }

 private:
  const bool has_memory_;
};

TEST_F(PosixDir, ResolvesAnEntryToItself) {
  const auto both = dir_.ResolveSymLinks(std::make_unique<SmallIdentifier>(true).get());
  EXPECT_TRUE(dir_.CompareDirs(both.first.get()) == kSameDir && both.second != nullptr);
  const auto one = dir_.ResolveSymLinks(nullptr);
  EXPECT_TRUE(dir_.CompareDirs(one.first.get()) == kSameDir && one.second == nullptr);
  EXPECT_EQ(Codes_(), Codes());
  const auto none = dir_.ResolveSymLinks(std::make_unique<SmallIdentifier>(false).get());
  EXPECT_TRUE(none.first == nullptr && none.second == nullptr);
  EXPECT_EQ(Codes_(), Codes{0x40006});
}

TEST_F(PosixDir, StartsFromTheFirstWorkingDirectory) {
  TestSupport::ChildProcess child([&] {
    const auto root = [] { return TestSupport::Utf8(OpenRootDir()->GetPath()); };
    return ::chdir(folder_.GetPath().c_str()) == 0 && root() == folder_.GetPath() + "/" &&
           ::chdir("/") == 0 && root() == folder_.GetPath() + "/";
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace Core
