#include "enterprise/common/ipc/utils.h"

#include "core/common/unix/safe_assert.h"

namespace Binding::Detail {

namespace {

constexpr char kPath[] = "enterprise/common/ipc/utils";

// `other_way` is the mode of what doesn't travel this way.
bool Travels(std::uint32_t mode, std::uint32_t other_way, int line) noexcept {
  if (mode > (kModeEncrypted | kModeRequestAndReply)) return false;
  if ((mode & ~kModeEncrypted) == other_way) return false;
  if ((mode & kModeEncrypted) == 0) return true;
  Common::SafeAssert("!\"Value is not encryptable but encyption was requested\"", kPath, line);
  return false;
}

}  // namespace

bool IsWritten(std::uint32_t mode) noexcept {
  return Travels(mode, kModeReply, 313);
}

bool IsRead(std::uint32_t mode) noexcept {
  return Travels(mode, kModeRequest, 395);
}

}  // namespace Binding::Detail
