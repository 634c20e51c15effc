#pragma once

#include <fcntl.h>
#include <sys/types.h>

// Port: what the files call of the Linux support library. Results and errno are those of open,
// close and fcntl.

int LinuxExOpen(const char* path, int flags, mode_t mode);
int LinuxExClose(int descriptor);
// `command` is F_SETLK or F_SETLKW.
int LinuxExRangeLock(int descriptor, int command, struct flock* record);
