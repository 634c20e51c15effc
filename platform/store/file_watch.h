#pragma once

#include <string>

#include "core/common/non_copyable.h"
#include "platform/ipc/unique_descriptor.h"

namespace Platform::Store {

// Tells through inotify that a store's log was written, or that the log or the store itself came or
// went, as soon as it happens. That some of it isn't told must be expected: without room for a
// watch, on a network file system where another host writes, behind links and moved folders until
// the next Arm.
//
// Reading a file isn't told. One thread at a time.
class FileWatch : public Common::NonCopyable {
 public:
  // Watches the store `path`, which leads to the file without links, and `log`, which lies beside
  // it, from now on. Called again and again: it watches the files that lie there now, and does what
  // has failed before. Costs some microseconds.
  void Arm(const std::string& path, const std::string& log);
  // To be polled for reading; -1 while there is none. Stays the same from the first one on.
  int GetDescriptor() const { return inotify_.Get(); }
  // Takes what has happened since the last call. True if any of it concerns the files, or if some
  // of it was lost.
  bool Take();

 private:
  void Watch(int& watch, const std::string& path, unsigned int events);

  Ipc::UniqueDescriptor inotify_;
  int folder_watch_ = -1;
  int log_watch_ = -1;
  std::string name_;  // without the folder
  std::string log_name_;
};

}  // namespace Platform::Store
