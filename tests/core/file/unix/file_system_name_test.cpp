#include "core/file/unix/file_system_name.h"

#include <gtest/gtest.h>
#include <linux/magic.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "core/file/unix/posix_dir.h"
#include "tests/core/file/unix/file_support.h"
#include "tests/support/text.h"

namespace Core {
namespace {

using TestSupport::Codes;
using TestSupport::CodesOf;

constexpr std::uint32_t kUnknown = 0x12345678;

TEST(FileSystemNames, GoWithTheNumbersOfTheSystem) {
  static const std::pair<std::uint32_t, const char*> kNames[] = {
      {ADFS_SUPER_MAGIC, "adfs"},
      {AFFS_SUPER_MAGIC, "affs"},
      {BTRFS_SUPER_MAGIC, "btrfs"},
      {CODA_SUPER_MAGIC, "coda"},
      {CRAMFS_MAGIC, "cramfs"},
      {EFS_SUPER_MAGIC, "efs"},
      {EXT4_SUPER_MAGIC, "ext2"},
      {HPFS_SUPER_MAGIC, "hpfs"},
      {HUGETLBFS_MAGIC, "hugetlbfs"},
      {ISOFS_SUPER_MAGIC, "isofs"},
      {JFFS2_SUPER_MAGIC, "jffs2"},
      {MINIX_SUPER_MAGIC, "minix"},
      {MINIX_SUPER_MAGIC2, "minix"},
      {MINIX2_SUPER_MAGIC, "minix"},
      {MINIX2_SUPER_MAGIC2, "minix"},
      {MSDOS_SUPER_MAGIC, "vfat"},
      {NCP_SUPER_MAGIC, "ncpfs"},
      {NFS_SUPER_MAGIC, "nfs"},
      {OPENPROM_SUPER_MAGIC, "openprom"},
      {PROC_SUPER_MAGIC, "procfs"},
      {QNX4_SUPER_MAGIC, "qnx4fs"},
      {REISERFS_SUPER_MAGIC, "reiserfs"},
      {SMB_SUPER_MAGIC, "smbfs"},
      {TMPFS_MAGIC, "tmpfs"},
      {0xFF534D42, "cifs"},
      {0x2F, "qnx4fs"},
      {0x58465342, "xfs"},
      {0x01021994, "tmpfs"},
      {0x11954, "ufs"},
      {0x12FF7B6, "sysvfs"},
  };
  for (const auto& [type, name] : kNames) {
    EXPECT_STREQ(GetFileSystemName(type), name);
    EXPECT_STREQ(GetFileSystemName(kUnknown), name) << "the last one";
  }
}

TEST(FileSystemNamesDeathTest, StartWithoutAName) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(*GetFileSystemName(kUnknown) == 0 ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(FileSystemNames, AreToldByDirectoriesInUpperCase) {
  char16_t name[kFileSystemNameSize] = u"before";
  file_system_name_record record{{kGetFileSystemName}, name};
  posix_dir process("/proc/self");
  process.IOCTL(record);
  EXPECT_EQ(CodesOf(process.GetError()), Codes());
  EXPECT_EQ(std::u16string(name), u"PROCFS");
  posix_dir root("/");
  root.IOCTL(record);
  EXPECT_EQ(CodesOf(root.GetError()), Codes());

  // Not a directory; and nothing at all.
  posix_dir file("/proc/self/status");
  file.IOCTL(record);
  EXPECT_EQ(CodesOf(file.GetError()), (Codes{0x4000E, 0xFFF1}));
  EXPECT_EQ(TestSupport::ParameterOf(file.GetError(), "path"), "/proc/self/status/");
  posix_dir missing("/proc/missing");
  missing.IOCTL(record);
  EXPECT_EQ(CodesOf(missing.GetError()), (Codes{0x40011, 0xFFF1}));
}

}  // namespace
}  // namespace Core
