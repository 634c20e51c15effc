#include "core/file/unix/file_system_name.h"

#include <algorithm>
#include <atomic>
#include <iterator>

namespace Core {
namespace {

struct named_type {
  std::uint32_t type;
  const char* name;
};

// In ascending order.
constexpr named_type kNames[] = {
    {0x2F, "qnx4fs"},          {0x1373, "devfs"},    {0x137D, "ext2"},     {0x137F, "minix"},
    {0x138F, "minix"},         {0x2468, "minix"},    {0x2478, "minix"},    {0x4244, "hfs"},
    {0x4D44, "vfat"},          {0x517B, "smbfs"},    {0x564C, "ncpfs"},    {0x6969, "nfs"},
    {0x7275, "romfs"},         {0x72B6, "jffs2"},    {0x9660, "isofs"},    {0x9FA0, "procfs"},
    {0x9FA1, "openprom"},      {0x9FA2, "usbfs"},    {0xADF5, "adfs"},     {0xADFF, "affs"},
    {0xEF51, "ext2"},          {0xEF53, "ext2"},     {0x11954, "ufs"},     {0x414A53, "efs"},
    {0x1021994, "tmpfs"},      {0x12FD16D, "xiafs"}, {0x12FF7B4, "xenix"}, {0x12FF7B5, "sysvfs"},
    {0x12FF7B6, "sysvfs"},     {0x12FF7B7, "coh"},   {0x15013346, "udf"},  {0x1BADFACE, "bfs"},
    {0x28CD3D45, "cramfs"},    {0x3153464A, "jfs"},  {0x42465331, "befs"}, {0x52654973, "reiserfs"},
    {0x5346544E, "ntfs"},      {0x58465342, "xfs"},  {0x73757245, "coda"}, {0x9123683E, "btrfs"},
    {0x958458F6, "hugetlbfs"}, {0xA501FCF5, "vxfs"}, {0xF995E849, "hpfs"}, {0xFF534D42, "cifs"},
};
static_assert(std::ranges::is_sorted(kNames, {}, &named_type::type));

// Static texts: nothing stands behind the pointer that another thread would have to see.
constinit std::atomic<const char*> last_name{""};

}  // namespace

const char* GetFileSystemName(std::uint32_t type) noexcept {
  const auto* const found = std::ranges::lower_bound(kNames, type, {}, &named_type::type);
  if (found == std::end(kNames) || found->type != type) {
    return last_name.load(std::memory_order_relaxed);
  }
  last_name.store(found->name, std::memory_order_relaxed);
  return found->name;
}

}  // namespace Core
