#include "core/file/unix/posix_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/file/unix/posix_dir.h"
#include "tests/core/file/unix/file_support.h"

namespace Core {
namespace {

using TestSupport::Codes;
using TestSupport::CodesOf;

constexpr std::uint32_t kPosix = 0xFFF1;

class PosixFile : public testing::Test {
 protected:
  // With manual locks.
  std::unique_ptr<posix_file> Open(int flags, const std::string& name = "file") {
    return dir_.Open(folder_ / name, flags, true, 0600);
  }
  static std::string ReadUpTo(i_file& file, std::uint64_t size) {
    std::string text(size, '?');
    std::uint64_t count = 99;
    file.Read(text.data(), size, count);
    text.resize(count);
    return text;
  }
  static std::uint64_t WriteUpTo(o_file& file, const std::string& text) {
    std::uint64_t count = 99;
    file.Write(text.data(), text.size(), count);
    return count;
  }

  const TestSupport::TemporaryFolder folder_;
  posix_dir dir_{folder_.GetPath()};
};

TEST_F(PosixFile, ReadsWritesAndSeeks) {
  const std::unique_ptr<posix_file> file = Open(O_RDWR | O_CREAT);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(WriteUpTo(*file, "abcdef"), 6u);
  EXPECT_EQ(file->Seek(2), 2);
  EXPECT_EQ(ReadUpTo(*file, 3), "cde");
  EXPECT_EQ(ReadUpTo(*file, 3), "f");
  EXPECT_EQ(ReadUpTo(*file, 3), "");
  EXPECT_EQ(ReadUpTo(*file, 0), "");
  EXPECT_EQ(file->SeekCurrent(-4), 2);
  EXPECT_EQ(file->GetSize(), 6u);
  EXPECT_EQ(file->SeekCurrent(0), 2);
  EXPECT_EQ(file->SeekEnd(4), 10);
  EXPECT_EQ(file->GetSize(), 6u);
  EXPECT_EQ(WriteUpTo(*file, "x"), 1u);
  file->Truncate(8);
  file->Flush();
  file->Rewind();
  EXPECT_EQ(ReadUpTo(*file, 100), std::string("abcdef\0\0", 8));
  EXPECT_FALSE(file->HasFailed());
  EXPECT_NE(::fcntl(file->GetDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(file->Seek(-1), 0);
  EXPECT_EQ(CodesOf(file->GetError()), (Codes{0x40005, kPosix}));
}

TEST_F(PosixFile, DoesNothingButSeekOnceItHasFailed) {
  TestSupport::WriteWhole(folder_ / "file", "abcdef");
  const std::unique_ptr<posix_file> file = Open(O_RDWR);
  ASSERT_NE(file, nullptr);
  file->SetError(Common::Error(0x4000D, Common::LineTag{}));
  file_times_record times{{kSetFileTimes}, 1000, 0, 1000};
  const time_t modified = TestSupport::StatusOf(folder_ / "file").st_mtime;
  EXPECT_EQ(ReadUpTo(*file, 3), "");
  EXPECT_EQ(WriteUpTo(*file, "xyz"), 0u);
  file->Truncate(1);
  file->Flush();
  file->LockExclusive(0, 0, false);
  file->LockShared(0, 0, false);
  file->IOCTL(times);
  EXPECT_EQ(TestSupport::StatusOf(folder_ / "file").st_mtime, modified);
  EXPECT_EQ(TestSupport::ReadWhole(folder_ / "file"), "abcdef");
  {
    const TestSupport::LockHolder other(folder_ / "file", F_WRLCK);  // finds no lock in the way
  }
  EXPECT_EQ(file->Seek(3), 3);
  EXPECT_EQ(file->SeekCurrent(1), 4);
  EXPECT_EQ(file->SeekEnd(-1), 5);
  EXPECT_EQ(file->Seek(-1), 0);
  EXPECT_EQ(CodesOf(file->GetError()), Codes{0x4000D});
}

TEST_F(PosixFile, TellsWhichOperationFailed) {
  TestSupport::WriteWhole(folder_ / "file", "abcdef");
  static const struct {
    std::function<void(posix_file&)> call;
    std::uint32_t code;
  } kFailures[] = {
      {[](posix_file& file) { EXPECT_EQ(WriteUpTo(file, "x"), 0u); }, 0x40003},
      {[](posix_file& file) { file.Truncate(0); }, 0x40003},
      {[](posix_file& file) { file.Truncate(~std::uint64_t{0}); }, 0x40003},
      {[](posix_file& file) { file.LockExclusive(0, 1, false); }, 0x40017},
      {[](posix_file& file) { file.LockShared(-1, 1, false); }, 0x40017},
      {[](posix_file& file) { file.LockShared(0, ~std::uint64_t{0}, false); }, 0x40017},
  };
  for (const auto& [call, code] : kFailures) {
    const std::unique_ptr<posix_file> file = Open(O_RDONLY);
    ASSERT_NE(file, nullptr);
    call(*file);
    EXPECT_EQ(CodesOf(file->GetError()), (Codes{code, kPosix}));
    EXPECT_EQ(TestSupport::ParameterOf(file->GetError(), "path"), "-");
  }
  const std::unique_ptr<posix_file> folder = Open(O_RDONLY, ".");
  EXPECT_EQ(ReadUpTo(*folder, 1), "");
  EXPECT_EQ(CodesOf(folder->GetError()), (Codes{0x40001, kPosix}));
}

TEST_F(PosixFile, CountsWhatWasReadBeforeASignal) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "abc", 3), 3);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction former {};
  ::sigaction(SIGALRM, &action, &former);
  const itimerval often{{0, 10'000}, {0, 10'000}};
  ::setitimer(ITIMER_REAL, &often, nullptr);
  posix_file file(ends[0], true);
  EXPECT_EQ(ReadUpTo(file, 10), "abc");
  const itimerval never{};
  ::setitimer(ITIMER_REAL, &never, nullptr);
  ::sigaction(SIGALRM, &former, nullptr);
  EXPECT_EQ(CodesOf(file.GetError()), (Codes{0x40001, kPosix}));
  ::close(ends[1]);
}

TEST_F(PosixFile, WritesWhatThereIsRoomFor) {
  const std::unique_ptr<posix_file> full = posix_dir("/").Open("/dev/full", O_WRONLY, true, 0);
  ASSERT_NE(full, nullptr);
  EXPECT_EQ(WriteUpTo(*full, "abc"), 0u);
  EXPECT_FALSE(full->HasFailed());
  Write(*full, "abc", 3);
  EXPECT_EQ(CodesOf(full->GetError()), Codes{0x40004});

  TestSupport::ChildProcess limited([&] {
    const rlimit limit{5, 5};
    const std::unique_ptr<posix_file> file = Open(O_WRONLY | O_CREAT, "limited");
    return file != nullptr && ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
           WriteUpTo(*file, "abcdef") == 5 && !file->HasFailed();
  });
  EXPECT_EQ(limited.Wait(), 0);
  EXPECT_EQ(TestSupport::ReadWhole(folder_ / "limited"), "abcde");
}

TEST_F(PosixFile, FindsItsEndByItsSizeWhereThereIsNoSeeking) {
  TestSupport::WriteWhole(folder_ / "file", "abcdef");
  // Such a descriptor has a status, but isn't open for the rest.
  const std::unique_ptr<posix_file> file = Open(O_PATH);
  ASSERT_NE(file, nullptr);
  file->SetError(Common::Error(0x4000D, Common::LineTag{}));
  EXPECT_EQ(file->SeekEnd(0), 0);
  EXPECT_EQ(CodesOf(file->GetError()), (Codes{0x40005, kPosix}));
  EXPECT_STREQ(file->GetError().GetLineTag().function, "Seek");
}

// The lock that another process finds in the way of locking all of it for itself: type, start and
// length.
std::vector<long> LockSeenByOthers(const std::string& path) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  TestSupport::ChildProcess child([&] {
    struct flock record {};
    record.l_type = F_WRLCK;
    const int descriptor = ::open(path.c_str(), O_RDWR);
    return ::fcntl(descriptor, F_GETLK, &record) == 0 &&
           ::write(ends[1], &record, sizeof record) == sizeof record;
  });
  struct flock record {};
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(::read(ends[0], &record, sizeof record), ssize_t{sizeof record});
  ::close(ends[0]);
  ::close(ends[1]);
  if (record.l_type == F_UNLCK) return {};
  return {record.l_type, record.l_start, record.l_len};
}

TEST_F(PosixFile, LocksRangesAgainstOtherProcesses) {
  const std::string path = folder_ / "file";
  TestSupport::WriteWhole(path, "abcdef");
  const std::unique_ptr<posix_file> file = Open(O_RDWR);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(LockSeenByOthers(path), std::vector<long>());
  file->LockExclusive(10, 20, false);
  EXPECT_EQ(LockSeenByOthers(path), (std::vector<long>{F_WRLCK, 10, 20}));
  file->LockShared(10, 0, true);
  EXPECT_EQ(LockSeenByOthers(path), (std::vector<long>{F_RDLCK, 10, 0}));
  file->Unlock(15, 0);
  EXPECT_EQ(LockSeenByOthers(path), (std::vector<long>{F_RDLCK, 10, 5}));
  file->Unlock(0, 0);
  EXPECT_EQ(LockSeenByOthers(path), std::vector<long>());

  TestSupport::LockHolder other(path, F_RDLCK, 0, 10);
  file->LockExclusive(10, 5, false);
  file->LockShared(0, 0, false);
  EXPECT_FALSE(file->HasFailed());
  file->LockExclusive(9, 1, false);
  EXPECT_EQ(CodesOf(file->GetError()), (Codes{0x40017, kPosix}));
  EXPECT_EQ(file->GetError().GetMessage(), u"Failed to lock the file.");
  file->SetError({});
  other.End();
  file->LockExclusive(0, 0, true);
  EXPECT_FALSE(file->HasFailed());
  // The other one wrote this before it let go.
  EXPECT_EQ(ReadUpTo(*file, 6), "!bcdef");
}

TEST_F(PosixFile, LeavesItsLockAloneWithoutManualLocks) {
  const std::string path = folder_ / "file";
  TestSupport::WriteWhole(path, "abcdef");
  {
    const std::unique_ptr<ri_file> file = dir_.OpenRead(u"file", false);
    ASSERT_NE(file, nullptr);
    const std::vector<long> shared{F_RDLCK, 0, 0};
    EXPECT_EQ(LockSeenByOthers(path), shared);
    file->Unlock(0, 0);
    file->LockShared(-5, 1, false);
    dynamic_cast<rio_file&>(*file).LockExclusive(0, 0, false);
    EXPECT_FALSE(file->HasFailed());
    EXPECT_EQ(LockSeenByOthers(path), shared);
  }
  const std::unique_ptr<ro_file> file = dir_.OpenWrite(u"file", false);
  EXPECT_EQ(LockSeenByOthers(path), (std::vector<long>{F_WRLCK, 0, 0}));
}

TEST_F(PosixFile, CarriesOutIoctls) {
  TestSupport::WriteWhole(folder_ / "file", std::string(100'000, 'x'));
  const std::unique_ptr<posix_file> file = Open(O_RDWR);
  ASSERT_NE(file, nullptr);

  file_times_record times{{kSetFileTimes}, 1'234'567'890'123, 5, 987'654'321'987};
  file->IOCTL(times);
  struct stat status = TestSupport::StatusOf(folder_ / "file");
  EXPECT_EQ(status.st_mtim.tv_sec, 1'234'567'890);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123'000'000);
  EXPECT_EQ(status.st_atim.tv_sec, 987'654'321);
  EXPECT_EQ(status.st_atim.tv_nsec, 987'000'000);

  unix_ioctl_record plain{{kUnixIoctl}, FIONREAD, 0, 77, 88};
  int available = 0;
  plain.argument = reinterpret_cast<std::uintptr_t>(&available);
  file->IOCTL(plain);
  EXPECT_EQ(plain.result, 0);
  EXPECT_EQ(plain.error, 88);
  EXPECT_EQ(available, 100'000);
  plain.command = 0xFFFFFFFF;
  file->IOCTL(plain);
  EXPECT_EQ(plain.result, -1);
  EXPECT_EQ(plain.error, ENOTTY);
  EXPECT_FALSE(file->HasFailed());

  ioctl_record append{kSetAppendMode};
  file->IOCTL(append);
  file->Seek(0);
  EXPECT_EQ(WriteUpTo(*file, "end"), 3u);
  EXPECT_EQ(file->GetSize(), 100'003u);

  inode_flags_record flags{{kGetInodeFlags}, ~std::uint64_t{0}};
  file->IOCTL(flags);
  if (!file->HasFailed()) {  // not in every file system
    EXPECT_EQ(flags.flags >> 32, 0u);
    flags.code = kSetInodeFlags;
    flags.flags |= FS_NODUMP_FL;
    file->IOCTL(flags);
    int seen = 0;
    EXPECT_EQ(::ioctl(file->GetDescriptor(), FS_IOC_GETFLAGS, &seen), 0);
    EXPECT_NE(seen & FS_NODUMP_FL, 0);
  }
  file->SetError({});

  const blkcnt_t blocks = TestSupport::StatusOf(folder_ / "file").st_blocks;
  punch_hole_record hole{{kPunchHole}, 0, 65536};
  file->IOCTL(hole);
  if (file->GetError().GetCode() == 0x4000E) GTEST_SKIP() << "no holes in this file system";
  status = TestSupport::StatusOf(folder_ / "file");
  EXPECT_EQ(status.st_size, 100'003);
  EXPECT_LE(status.st_blocks, blocks - 65536 / 512);
  file->Seek(65535);
  EXPECT_EQ(ReadUpTo(*file, 2), std::string("\0x", 2));
  hole.length = 0;
  file->IOCTL(hole);
  EXPECT_EQ(CodesOf(file->GetError()), (Codes{0x40003, kPosix}));

  file->SetError({});
  ioctl_record unknown{MakeIoctlCode("XXXX")};
  file->IOCTL(unknown);
  EXPECT_EQ(CodesOf(file->GetError()), Codes{0x4000E});
}

TEST_F(PosixFile, TellsItsSectors) {
  TestSupport::WriteWhole(folder_ / "file", std::string(20'000, 'x'));
  const std::unique_ptr<posix_file> file = Open(O_RDWR);
  ASSERT_NE(file, nullptr);
  file->Flush();
  int block = 2;
  int block_size = 0;
  if (::ioctl(file->GetDescriptor(), FIGETBSZ, &block_size) != 0 || block_size != 4096 ||
      ::ioctl(file->GetDescriptor(), FIBMAP, &block) != 0 || block == 0) {
    GTEST_SKIP() << "this process may not ask for blocks, or the file system has no such ones";
  }
  get_sector_record sector{{kGetSector}, 0, 0, 9};
  file->Seek(2 * 4096 + 3 * 512 + 100);
  file->IOCTL(sector);
  EXPECT_EQ(sector.sector, static_cast<std::uint64_t>(block) * 8 + 3);
  EXPECT_EQ(sector.count, 5u);
  EXPECT_EQ(sector.flag, 0);
  file->Truncate(1'000'000);
  file->Seek(500'000);
  file->IOCTL(sector);
  EXPECT_EQ(sector.sector, ~std::uint64_t{0});
}

}  // namespace
}  // namespace Core
