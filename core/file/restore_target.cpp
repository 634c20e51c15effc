#include "core/common/unix/safe_assert.h"
#include "core/file/restore_file.h"

namespace Core {
namespace {

constexpr Common::SourceFile kSource{"core/file/restore_target"};

}  // namespace

RestoreTarget::~RestoreTarget() {
  FileTarget.reset();
  if (!error.IsFailure() || type == kNothing || type == kDirEntry) return;
  directory->Remove(path);
  directory->SetError({});
}

void RestoreTarget::Fail(const Common::Error& failure) {
  if (!error.IsFailure()) error = failure;
}

void RestoreTarget::TakeDirectoryError(std::uint32_t tolerated) {
  const Common::Error failure = directory->GetError();
  directory->SetError({});
  if (failure.GetCode() != tolerated) Fail(failure);
}

bool RestoreTarget::MustCreate(std::uint32_t wanted) {
  if (error.IsFailure()) return false;
  if (type != kNothing && type != wanted) {
    Fail(MakeFileError(kFileCorrupted, kSource.At("MayCreate", 10)));
  }
  return type == kNothing;
}

bool RestoreTarget::MayCreateDir() {
  if (MustCreate(kDirEntry)) {
    directory->CreateDir(path, nullptr);
    TakeDirectoryError(kFileExists.code);
    if (!error.IsFailure()) type = kDirEntry;
  }
  return !error.IsFailure();
}

bool RestoreTarget::MayCreateFile() {
  if (MustCreate(kRegularEntry)) {
    FileTarget = directory->Create(path, false, nullptr);
    TakeDirectoryError();
    const bool result = !error.IsFailure();
    SAFE_ASSERT((FileTarget != 0) == result);
    if (!result) {
      FileTarget.reset();
    } else if (FileTarget == nullptr) {
      Fail(MakeFileError(kFileCreateFailure, kSource.At("MayCreateFile", 10)));
    } else {
      type = kRegularEntry;
    }
  }
  return !error.IsFailure();
}

bool RestoreTarget::MayCreateNode(entry_type node, std::uint32_t mode, std::uint32_t major_number,
                                  std::uint32_t minor_number) {
  if (MustCreate(node)) {
    directory->CreateDeviceNode(path, node, mode, major_number, minor_number);
    TakeDirectoryError();
    if (!error.IsFailure()) type = node;
  }
  return !error.IsFailure();
}

bool RestoreTarget::MayCreateLink(const char16_t* link) {
  if (MustCreate(kSymLinkEntry)) {
    directory->CreateSymLink(path, link);
    TakeDirectoryError();
    if (!error.IsFailure()) type = kSymLinkEntry;
  }
  return !error.IsFailure();
}

}  // namespace Core
