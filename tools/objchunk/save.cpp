#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/common/number_text.h"
#include "core/common/string.h"
#include "core/file/unix/file_name.h"
#include "core/file/unix/join_path.h"
#include "core/file/unix/posix_backup.h"
#include "core/file/unix/posix_dir.h"
#include "tools/objchunk/chunk_archive.h"
#include "tools/objchunk/commands.h"
#include "tools/objchunk/entry.h"
#include "tools/objchunk/place.h"
#include "tools/objchunk/run.h"

namespace ChunkTool {
namespace {

using Core::posix_dir;

// Whether the text of a link's target stands for other bytes than the link has.
bool LosesTarget(Core::i_dir::iterator& entry, const std::string& path) {
  const char16_t* const text = entry.GetLinkTarget();
  if (text == nullptr) return false;
  const Common::String target = text;
  if (std::none_of(target.begin(), target.end(), &Common::IsEscapedByte)) return false;
  std::string bytes(4096, '\0');
  const ssize_t size = ::readlink(path.c_str(), bytes.data(), bytes.size());
  if (size < 0) return false;  // told by the backup
  bytes.resize(static_cast<std::size_t>(size));
  return Core::TextToFileName(target) != bytes;
}

class TreeSaver {
 public:
  TreeSaver(ArchiveWriter& archive, const struct stat& status, Run& run)
      : archive_(archive), status_(status), run_(run) {}

  // An entry that is no folder.
  void SaveEntry(posix_dir& directory, Core::i_dir::iterator& entry, const std::string& name) {
    const std::string path = directory.Join(entry);
    if (IsArchive(entry, path)) return;
    run_.Begin(name);
    if (entry.GetType() == Core::kSymLinkEntry && LosesTarget(entry, path)) {
      return run_.Fail("The link's target holds characters that stand for raw bytes.");
    }
    const char16_t* const text = entry.GetName();
    const bool survives = Core::TextToFileName(text) == entry.GetNarrowName();
    Store(name, [&](Core::backup_record& request) {
      if (!survives) return Core::PosixBackupEntry(directory, entry, request);
      request.path = text;
      directory.IOCTL(request);
      return directory.GetError();
    });
  }

  void SaveTree(const std::string& path, const std::string& name) {
    std::vector<std::unique_ptr<Level>> levels;
    levels.push_back(OpenLevel(path, name));
    while (!levels.empty() && !run_.IsCanceled()) {
      Level& level = *levels.back();
      if (!level.folders.empty()) {
        const std::string folder = std::move(level.folders.back());
        level.folders.pop_back();
        levels.push_back(OpenLevel(Core::JoinPath(level.directory.GetNarrowPath(), folder),
                                   Append(level.name, folder)));
        continue;
      }
      if (!level.name.empty()) {  // the root of the file system has none
        run_.Begin(level.name);
        Store(level.name, [&](Core::backup_record& request) {
          level.directory.IOCTL(request);
          return level.directory.GetError();
        });
      }
      levels.pop_back();
    }
  }

 private:
  struct Level {
    posix_dir directory;
    std::string name;
    std::vector<std::string> folders;  // that are still to come
  };

  static std::string Append(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + '/' + name;
  }

  // Saves what is in the folder, but for folders. No stream stays open while these are saved.
  std::unique_ptr<Level> OpenLevel(const std::string& path, const std::string& name) {
    std::unique_ptr<Level> level(new Level{posix_dir(path), name, {}});
    const std::unique_ptr<Core::i_dir::iterator> entry = level->directory.GetIterator();
    if (entry == nullptr) {
      run_.Begin(name);
      run_.Fail(level->directory.GetError());
      return level;
    }
    for (; !entry->HasFailed() && !run_.IsCanceled(); entry->Next()) {
      const std::string leaf = entry->GetNarrowName();
      const Core::entry_type type = entry->GetType();
      if (entry->HasFailed()) break;
      if (type == Core::kDirEntry) {
        level->folders.push_back(leaf);
      } else {
        SaveEntry(level->directory, *entry, Append(name, leaf));
      }
    }
    if (entry->HasFailed() && entry->GetError().GetCode() != Core::kEndOfFile.code) {
      run_.Begin(name);
      run_.Fail(entry->GetError());
    }
    return level;
  }

  bool IsArchive(Core::i_dir::iterator& entry, const std::string& path) {
    if (entry.GetFileId() != status_.st_ino) return false;
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && status.st_dev == status_.st_dev &&
           status.st_ino == status_.st_ino;
  }

  template <class Backup>
  void Store(const std::string& name, Backup backup) {
    if (name.size() > kMaxName) return run_.Fail("The name is too long for an archive.");
    archive_.StartEntry(name);
    Core::backup_record request{{Core::kBackupEntry}, &archive_, &run_, 0, nullptr};
    const Common::Error error = backup(request);
    if (archive_.HasFailed()) throw archive_.GetError();
    if (!error.IsFailure()) {
      archive_.EndEntry();
      return run_.Succeed();
    }
    archive_.DropEntry();
    if (!run_.IsCanceled()) run_.Fail(error);
  }

  ArchiveWriter& archive_;
  const struct stat status_;  // of the archive
  Run& run_;
};

}  // namespace

void Save(const std::string& path, const std::string& archive) {
  const std::unique_ptr<posix_dir> working = OpenWorkingDir();
  const std::string full = GetFullPath(*working, path);
  Common::Error error;
  const std::unique_ptr<Core::i_dir::iterator> entry = FindEntry(*working, full, error);
  if (entry == nullptr) throw error;

  // Whoever may not read what is saved may not read it there either.
  const std::unique_ptr<Core::posix_file> file =
      working->Open(GetFullPath(*working, archive), O_RDWR | O_CREAT, false, 0600);
  if (file == nullptr) throw working->GetError();
  struct stat status;
  if (::fstat(file->GetDescriptor(), &status) != 0) status = {};
  ArchiveWriter writer(*file);
  Run run("saved", false);
  if (writer.GetCutBytes() != 0) {
    run.Note(archive + ": " + std::to_string(writer.GetCutBytes()) +
                 " bytes at the end were cut off: a save didn't finish.",
             false);
  }

  TreeSaver saver(writer, status, run);
  try {
    const std::string name = full == "/" ? std::string() : entry->GetNarrowName();
    if (entry->GetType() == Core::kDirEntry) {
      saver.SaveTree(full, name);
    } else {
      posix_dir parent(full.substr(0, std::max<std::size_t>(full.rfind('/'), 1)));
      saver.SaveEntry(parent, *entry, name);
    }
  } catch (const Common::Error& failure) {
    // The archive can't be written. What is whole is kept, if that much can be done.
    const Common::Error first = failure;
    try {
      writer.DropEntry();
      writer.Commit();
    } catch (const Common::Error&) {
    }
    throw first;
  }
  writer.Commit();
  run.Finish();
}

}  // namespace ChunkTool
