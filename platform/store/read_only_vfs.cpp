#include "platform/store/read_only_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <new>
#include <string_view>

namespace Platform::Store {

namespace {

constexpr char kName[] = "objprobe-read-only";

// Write and read version of the file format, in the header of page 1: 1 is a file without a log,
// 2 one with.
constexpr sqlite3_int64 kVersionsOffset = 18;
constexpr sqlite3_int64 kVersionsSize = 2;
constexpr unsigned char kWithLog = 2;
constexpr unsigned char kWithoutLog = 1;

constexpr std::string_view kLogEnding = "-wal";
constexpr off_t kLogHeaderSize = 32;

sqlite3_vfs* base_vfs = nullptr;
sqlite3_vfs vfs{};

// Filled by the first file that is opened, then only read. The layer below has one table of
// methods for all files with its usual locks.
std::once_flag methods_once;
const sqlite3_io_methods* base_methods = nullptr;
sqlite3_io_methods main_file_methods{};

// What this layer knows of a main file, behind what the layer below keeps.
struct FileState {
  const char* name;  // kept by SQLite until the file is closed
  bool index_missing;
};
constexpr int kAlignment = alignof(FileState);

int GetStateOffset() {
  return (base_vfs->szOsFile + kAlignment - 1) / kAlignment * kAlignment;
}

FileState& GetState(sqlite3_file* file) {
  return *reinterpret_cast<FileState*>(reinterpret_cast<char*>(file) + GetStateOffset());
}

int Read(sqlite3_file* file, void* buffer, int size, sqlite3_int64 offset) {
  const int result = base_methods->xRead(file, buffer, size, offset);
  // A file that ends inside the buffer is shown in the same way; the rest of the buffer is zeros.
  if (result != SQLITE_OK && result != SQLITE_IOERR_SHORT_READ) return result;
  auto* bytes = static_cast<unsigned char*>(buffer);
  for (sqlite3_int64 i = kVersionsOffset; i < kVersionsOffset + kVersionsSize; ++i) {
    if (i >= offset && i < offset + size && bytes[i - offset] == kWithLog) {
      bytes[i - offset] = kWithoutLog;
    }
  }
  return result;
}

// True if the file's index lies beside it and may be read; else the reason is in errno.
bool HasIndex(const FileState& state) {
  char index[PATH_MAX];
  std::snprintf(index, sizeof index, "%s-shm", state.name);
  return ::faccessat(AT_FDCWD, index, R_OK, AT_EACCESS) == 0;
}

// SQLITE_READONLY_CANTINIT makes SQLite read the log itself and keep an index of its own. A file
// for which it was answered never gets another index: the locks that were granted would not be in
// that one. So once a writer makes one, a new connection has to begin.
int MapIndex(sqlite3_file* file, int page, int size, int extend, void volatile** map) {
  FileState& state = GetState(file);
  if (state.index_missing) {
    if (HasIndex(state)) return SQLITE_READONLY_CANTLOCK;
  } else {
    const int result = base_methods->xShmMap(file, page, size, extend, map);
    if ((result & 0xFF) != SQLITE_CANTOPEN) return result;
    // Made just now, or it can't be opened: a new connection begins, within the caller's limits,
    // which SQLite's own waiting for an index doesn't know.
    if (HasIndex(state)) return SQLITE_READONLY_CANTLOCK;
    if (errno != ENOENT) return result;
    state.index_missing = true;
  }
  *map = nullptr;
  return SQLITE_READONLY_CANTINIT;
}

int LockIndex(sqlite3_file* file, int first, int count, int flags) {
  if (GetState(file).index_missing && (flags & SQLITE_SHM_SHARED) != 0) return SQLITE_OK;
  return base_methods->xShmLock(file, first, count, flags);
}

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  // Temporary files are kept in memory; nothing else has no name.
  if (name == nullptr) return SQLITE_CANTOPEN;
  flags &= ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE);
  flags |= SQLITE_OPEN_READONLY;
  const int result = base_vfs->xOpen(base_vfs, name, file, flags, out_flags);
  if (result != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return result;
  std::call_once(methods_once, [file] {
    base_methods = file->pMethods;
    main_file_methods = *base_methods;
    main_file_methods.iVersion = 2;  // plain reads, no memory map of the file
    main_file_methods.xRead = &Read;
    main_file_methods.xShmMap = &MapIndex;
    main_file_methods.xShmLock = &LockIndex;
  });
  if (file->pMethods != base_methods) {
    file->pMethods->xClose(file);
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  new (&GetState(file)) FileState{name, false};
  file->pMethods = &main_file_methods;
  return SQLITE_OK;
}

// A log without a frame is shown as none: with no writer there, SQLite would try in vain to make an
// index for one.
int Access(sqlite3_vfs*, const char* name, int flags, int* result) {
  const int code = base_vfs->xAccess(base_vfs, name, flags, result);
  if (code != SQLITE_OK || flags != SQLITE_ACCESS_EXISTS || *result == 0) return code;
  struct stat status {};
  if (std::string_view(name).ends_with(kLogEnding) && ::stat(name, &status) == 0 &&
      status.st_size <= kLogHeaderSize) {
    *result = 0;
  }
  return SQLITE_OK;
}

int Delete(sqlite3_vfs*, const char*, int) {
  return SQLITE_READONLY;
}

const char* Register() {
  base_vfs = sqlite3_vfs_find("unix");
  if (base_vfs == nullptr) return nullptr;
  vfs = *base_vfs;
  vfs.pNext = nullptr;
  vfs.zName = kName;
  vfs.szOsFile = GetStateOffset() + static_cast<int>(sizeof(FileState));
  vfs.xOpen = &Open;
  vfs.xDelete = &Delete;
  vfs.xAccess = &Access;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? kName : nullptr;
}

}  // namespace

const char* RegisterReadOnlyVfs() {
  static const char* const name = Register();
  return name;
}

}  // namespace Platform::Store
