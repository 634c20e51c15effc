#include "core/file/unix/linux_ex.h"

#include "core/common/unix/safe_close.h"

int LinuxExOpen(const char* path, int flags, mode_t mode) {
  // Files say so by a call of their own, too late for a program that another thread starts between.
  return ::open(path, flags | O_CLOEXEC, mode);
}

int LinuxExClose(int descriptor) {
  return Common::SafeClose(descriptor);
}

int LinuxExRangeLock(int descriptor, int command, struct flock* record) {
  return ::fcntl(descriptor, command, record);
}
