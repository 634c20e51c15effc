#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/string.h"
#include "core/file/backup.h"
#include "core/file/memory_file.h"
#include "core/file/unix/file_name.h"
#include "core/file/unix/join_path.h"
#include "core/file/unix/posix_dir.h"
#include "core/file/unix/posix_error.h"
#include "platform/console/error_text.h"
#include "tools/common/program.h"
#include "tools/objchunk/chunk_archive.h"
#include "tools/objchunk/commands.h"
#include "tools/objchunk/entry.h"
#include "tools/objchunk/opened_archive.h"
#include "tools/objchunk/place.h"
#include "tools/objchunk/run.h"

namespace ChunkTool {
namespace {

using Core::posix_dir;
using Tools::CommandFailure;

constexpr Common::SourceFile kSource{"tools/objchunk/restore"};
// More than a description with the longest target has.
constexpr std::size_t kMaxDescription = 3 * kMaxPayload;
constexpr Core::access_rights kOwnerOnly{0, 0700};

// The chunks of an entry, as far as they are let through.
class CheckedSource final : public EntrySource {
 public:
  // `depth`: how many folders lie above the entry.
  CheckedSource(ArchiveReader& reader, std::size_t depth, bool outside_links)
      : EntrySource(reader), depth_(depth), outside_links_(outside_links) {}

  std::unique_ptr<Core::i_file> NextChunk(std::uint8_t& type) override {
    std::unique_ptr<Core::i_file> chunk = EntrySource::NextChunk(type);
    if (chunk == nullptr || type != Core::kDescriptionChunk || outside_links_) return chunk;
    std::unique_ptr<unsigned char[]> block(new unsigned char[kMaxDescription]);
    std::uint64_t size = 0;
    chunk->Read(block.get(), kMaxDescription, size);
    if (chunk->HasFailed()) return MakeFailedChunk(type, chunk->GetError());
    EntryDescription description;
    const std::string_view bytes(reinterpret_cast<const char*>(block.get()),
                                 static_cast<std::size_t>(size));
    if (size == kMaxDescription || !ParseDescription(bytes, description)) {
      return Refuse(type, "The entry's description is damaged.");
    }
    if (description.type == Core::kSymLinkEntry && MayLeadOutside(description.target, depth_)) {
      return Refuse(type, "The link leads out of the folder, to " + description.target + ".");
    }
    return std::make_unique<Core::MemoryFile>(std::move(block), size);
  }

  // Why a chunk was not let through; empty when all were.
  const std::string& GetRefusal() const { return refusal_; }

 private:
  std::unique_ptr<Core::i_file> Refuse(std::uint8_t& type, const std::string& reason) {
    refusal_ = reason;
    return MakeFailedChunk(type,
                           Core::MakeFileError(Core::kFileAccessDenied, kSource.At("Refuse", 10)));
  }

  const std::size_t depth_;
  const bool outside_links_;
  std::string refusal_;
};

// Makes something called `name` in the directory: `make` gets a name that means the same in text,
// or one under which it is made at first, and gives its error.
template <class Make>
void MakeNamed(posix_dir& directory, const std::string& name, Make make) {
  if (SurvivesText(name)) {
    if (const Common::Error error = make(Core::FileNameToText(name)); error.IsFailure()) {
      throw error;
    }
    return;
  }
  const std::string first = ".objchunk-" + std::to_string(::getpid());
  if (const Common::Error error = make(Core::FileNameToText(first)); error.IsFailure()) {
    throw error;
  }
  const std::string from = Core::JoinPath(directory.GetNarrowPath(), first);
  const std::string to = Core::JoinPath(directory.GetNarrowPath(), name);
  if (std::rename(from.c_str(), to.c_str()) == 0) return;
  const int errnum = errno;
  std::remove(from.c_str());
  throw Core::MakePosixError(Core::kFileRenameFailure, errnum, kSource.At("MakeNamed", 10),
                             from.c_str(), to.c_str());
}

class TreeRestorer {
 public:
  TreeRestorer(const std::string& folder, const RestoreOptions& options, Run& run)
      : options_(options), run_(run) {
    folders_.push_back({std::string(), std::make_unique<posix_dir>(folder)});
  }

  // Throws Common::Error or CommandFailure.
  void RestoreEntry(ArchiveReader& reader, const std::string& name) {
    if (const char* const fault = FindFault(name)) throw CommandFailure(fault);
    const std::size_t slash = name.rfind('/');
    const bool is_top = slash == std::string::npos;
    Enter(is_top ? std::string_view() : std::string_view(name).substr(0, slash));
    const std::string leaf = is_top ? name : name.substr(slash + 1);
    posix_dir& directory = *folders_.back().directory;
    const std::string path = Core::JoinPath(directory.GetNarrowPath(), leaf);

    CheckedSource source(reader, folders_.size() - 1, options_.outside_links);
    const auto restore = [&](posix_dir& place, const char16_t* item) {
      Core::restore_record request{{Core::kRestoreEntry}, &source, &run_, 0, item};
      place.IOCTL(request);
      if (!source.GetRefusal().empty()) throw CommandFailure(source.GetRefusal());
      return place.GetError();
    };
    if (IsFolder(directory, path)) {
      // Its own object means it whatever it is called, and what is no folder fails there.
      posix_dir folder(path);
      if (const Common::Error error = restore(folder, u"."); error.IsFailure()) throw error;
      return;
    }
    MakeWay(directory, path, name);
    MakeNamed(directory, leaf,
              [&](const Common::String& item) { return restore(directory, item.c_str()); });
    made_.insert(name);
  }

 private:
  struct Folder {
    std::string name;
    std::unique_ptr<posix_dir> directory;
  };

  // Opens the folders on the way, and makes those that are missing. Each must be one itself: a link
  // could lead anywhere.
  void Enter(std::string_view way) {
    std::size_t depth = 1;
    while (!way.empty()) {
      const std::string name(way.substr(0, way.find('/')));
      way.remove_prefix(name.size() < way.size() ? name.size() + 1 : name.size());
      if (depth < folders_.size() && folders_[depth].name == name) {
        ++depth;
        continue;
      }
      folders_.resize(depth);
      posix_dir& directory = *folders_.back().directory;
      const std::string path = Core::JoinPath(directory.GetNarrowPath(), name);
      Common::Error error;
      const auto entry = FindEntry(directory, path, error);
      if (entry == nullptr && error.GetCode() != Core::kFileNotFound.code) throw error;
      if (entry != nullptr && entry->GetType() != Core::kDirEntry) {
        throw CommandFailure(path + " is in the way: it is no folder.");
      }
      if (entry == nullptr) {
        MakeNamed(directory, name, [&](const Common::String& item) {
          directory.CreateDir(item.c_str(), &kOwnerOnly);
          return directory.GetError();
        });
      }
      folders_.push_back({name, std::make_unique<posix_dir>(path)});
      ++depth;
    }
    folders_.resize(depth);
  }

  static bool IsFolder(posix_dir& directory, const std::string& path) {
    Common::Error error;
    const auto entry = FindEntry(directory, path, error);
    if (entry == nullptr && error.GetCode() != Core::kFileNotFound.code) throw error;
    return entry != nullptr && entry->GetType() == Core::kDirEntry;
  }

  // Nothing may be there any more: a file would be opened through a link. A later entry of the
  // archive takes the place of an earlier one.
  void MakeWay(posix_dir& directory, const std::string& path, const std::string& name) {
    Common::Error error;
    if (FindEntry(directory, path, error) == nullptr) return;
    if (!options_.overwrite && made_.count(name) == 0) {
      throw Core::MakeFileError(Core::kFileExists, kSource.At("MakeWay", 10));
    }
    if (::unlink(path.c_str()) != 0) {
      throw Core::MakePosixError(Core::kFileDeleteFailure, errno, kSource.At("MakeWay", 20));
    }
  }

  const RestoreOptions options_;
  Run& run_;
  std::vector<Folder> folders_;  // on the way to the last entry, the first one above all
  std::set<std::string> made_;
};

}  // namespace

void Restore(const std::string& archive, const std::string& folder, const RestoreOptions& options) {
  const OpenedArchive opened(archive);
  ArchiveReader reader(opened.GetFile());
  const std::unique_ptr<posix_dir> working = OpenWorkingDir();
  const std::string full = GetFullPath(*working, folder);
  // A link to a folder is one here.
  struct stat status;
  if (::stat(full.c_str(), &status) != 0) {
    throw Core::MakePosixError(Core::kFileOpenFailure, errno, kSource.At("Restore", 10),
                               folder.c_str());
  }
  if (!S_ISDIR(status.st_mode)) throw CommandFailure(folder + ": It is no folder.");

  // Until it has its owner and mode, nobody else has business with an item.
  ::umask(077);
  Run run("restored", true);
  TreeRestorer restorer(full, options, run);
  std::string name;
  try {
    while (!run.IsCanceled() && reader.NextEntry(name)) {
      run.Begin(name);
      try {
        restorer.RestoreEntry(reader, name);
        run.Succeed();
      } catch (const Common::Error& error) {
        if (!run.IsCanceled()) run.Fail(error);
      } catch (const CommandFailure& failure) {
        run.Fail(failure.what());
      }
    }
    const std::string fault = run.IsCanceled() ? std::string() : DescribeEnd(reader);
    if (!fault.empty()) run.Note(archive + ": " + fault, true);
  } catch (const Common::Error& error) {
    run.Note(archive + ": " + Platform::Console::DescribeError(error), true);
  }
  run.Finish();
}

}  // namespace ChunkTool
