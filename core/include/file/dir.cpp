#include "core/include/file/dir.h"

namespace Core {
namespace {

void FailUnsupported(file_object& object, const char* function, std::uint32_t line) {
  object.SetError(MakeFileError(kFileUnsupported, kDirSource.At(function, line)));
}

}  // namespace

std::unique_ptr<i_dir> i_dir::OpenDir(const char16_t* path) {
  return std::unique_ptr<i_dir>(DoOpenDir(path));
}

std::unique_ptr<i_dir> i_dir::OpenDir(iterator& entry) {
  return std::unique_ptr<i_dir>(DoOpenDir(entry));
}

std::unique_ptr<i_dir> i_dir::OpenDir(const file_identifier* entry) {
  return std::unique_ptr<i_dir>(DoOpenDir(entry));
}

std::unique_ptr<i_dir> i_dir::OpenParentDir(const char16_t*& path) {
  return std::unique_ptr<i_dir>(DoOpenParentDir(path));
}

std::unique_ptr<i_dir> i_dir::OpenThisDir() {
  return nullptr;
}

std::unique_ptr<i_dir> i_dir::OpenSpecialDir(std::uint32_t) {
  FailUnsupported(*this, "OpenSpecialDir", 10);
  return nullptr;
}

const char16_t* i_dir::GetPath() {
  return nullptr;
}

std::uint32_t i_dir::GetDirKind() {
  return 137;
}

void i_dir::GetDriveSize(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
  total = free = available = 0;
  FailUnsupported(*this, "GetDriveSize", 20);
}

const char16_t* i_dir::GetVolumeLabel() {
  FailUnsupported(*this, "GetVolumeLabel", 30);
  return nullptr;
}

bool i_dir::IsSeparator(char16_t character) {
  return character == u'/' || character == u'\\';
}

char16_t i_dir::GetSeparator() {
  return u'\\';
}

bool i_dir::IsCaseSensitive() {
  return false;
}

void i_dir::IOCTL(ioctl_record&) {
  FailUnsupported(*this, "IOCTL", 40);
}

void i_dir::EnableNotification(std::shared_ptr<dir_callback>) {
  FailUnsupported(*this, "EnableNotification", 50);
}

void i_dir::RearmNotification() {}

std::pair<std::unique_ptr<i_dir>, std::unique_ptr<file_identifier>> i_dir::ResolveSymLinks(
    const file_identifier* entry) {
  std::unique_ptr<i_dir> directory = OpenDir(u".");
  if (directory == nullptr || entry == nullptr) return {std::move(directory), nullptr};
  std::unique_ptr<file_identifier> clone = entry->Clone();
  if (clone == nullptr) {
    SetError(MakeFileError(kFileNoMemory, kDirSource.At("ResolveSymLinks", 60)));
    return {};
  }
  return {std::move(directory), std::move(clone)};
}

int i_dir::ReservedQuery1() {
  return 0;
}

int i_dir::ReservedQuery2() {
  return 0;
}

int i_dir::ReservedQuery3() {
  return 0;
}

void i_dir::iterator::Next() {
  Fail(MakeFileError(kFileUnsupported, kDirSource.At("Next", 70)));
}

int i_dir::iterator::ReservedQuery1() {
  return 0;
}

const char16_t* i_dir::iterator::GetAlternateName() {
  return GetName();
}

int i_dir::iterator::ReservedQuery2() {
  return 0;
}

std::uint64_t i_dir::iterator::GetSize() {
  return 0;
}

std::uint64_t i_dir::iterator::GetAllocatedSize() {
  return 0;
}

std::uint64_t i_dir::iterator::GetModifyTime() {
  return 0;
}

std::uint64_t i_dir::iterator::GetChangeTime() {
  return 0;
}

std::uint64_t i_dir::iterator::GetCreateTime() {
  return 0;
}

std::uint64_t i_dir::iterator::GetAccessTime() {
  return 0;
}

std::uint32_t i_dir::iterator::GetDOSAttributes() {
  return ~std::uint32_t{0};
}

std::uint32_t i_dir::iterator::GetPermissions() {
  return ~std::uint32_t{0};
}

bool i_dir::iterator::IsHidden() {
  return false;
}

std::uint32_t i_dir::iterator::GetOwner() {
  return ~std::uint32_t{0};
}

std::uint32_t i_dir::iterator::GetGroup() {
  return ~std::uint32_t{0};
}

int i_dir::iterator::ReservedQuery3() {
  return 0;
}

std::uint64_t i_dir::iterator::GetLinkCount() {
  return 1;
}

std::uint32_t i_dir::iterator::GetDeviceMajor() {
  return 0;
}

std::uint32_t i_dir::iterator::GetDeviceMinor() {
  return 0;
}

int i_dir::iterator::ReservedQuery4() {
  return 1;
}

std::uint64_t i_dir::iterator::GetFileId() {
  return 0;
}

const char16_t* i_dir::iterator::GetLinkTarget() {
  return nullptr;
}

void i_dir::iterator::StatFile() {
  Fail(MakeFileError(kFileUnsupported, kDirSource.At("StatFile", 80)));
}

std::uint64_t i_dir::iterator::AcquireAllocatedSize() {
  return 0;
}

std::unique_ptr<o_dir> o_dir::OpenDir(const char16_t* path) {
  return std::unique_ptr<o_dir>(DoOpenDir(path));
}

std::unique_ptr<o_dir> o_dir::OpenParentDir(const char16_t*& path) {
  return std::unique_ptr<o_dir>(DoOpenParentDir(path));
}

void o_dir::CreateHardLink(const char16_t*, const char16_t*) {
  FailUnsupported(*this, "CreateHardLink", 90);
}

void o_dir::CreateSymLink(const char16_t*, const char16_t*) {
  FailUnsupported(*this, "CreateSymLink", 100);
}

void o_dir::SetAccessRights(const char16_t*, const access_rights*) {
  FailUnsupported(*this, "SetAccessRights", 110);
}

void o_dir::SetDOSAttributes(const char16_t*, std::uint32_t) {
  FailUnsupported(*this, "SetDOSAttributes", 120);
}

void o_dir::SetUnixPermissions(const char16_t*, std::uint32_t) {
  FailUnsupported(*this, "SetUnixPermissions", 130);
}

void o_dir::SetUnixOwner(const char16_t*, std::uint32_t, std::uint32_t) {
  FailUnsupported(*this, "SetUnixOwner", 140);
}

void o_dir::CreateDeviceNode(const char16_t*, entry_type, std::uint32_t, std::uint32_t,
                             std::uint32_t) {
  FailUnsupported(*this, "CreateDeviceNode", 150);
}

void o_dir::IOCTL(ioctl_record&) {
  FailUnsupported(*this, "IOCTL", 160);
}

std::unique_ptr<rio_dir> rio_dir::OpenDir(const char16_t* path) {
  return std::unique_ptr<rio_dir>(DoOpenDir(path));
}

std::unique_ptr<rio_dir> rio_dir::OpenDir(iterator& entry) {
  return std::unique_ptr<rio_dir>(DoOpenDir(entry));
}

std::unique_ptr<rio_dir> rio_dir::OpenDir(const file_identifier* entry) {
  return std::unique_ptr<rio_dir>(DoOpenDir(entry));
}

std::unique_ptr<rio_dir> rio_dir::OpenParentDir(const char16_t*& path) {
  return std::unique_ptr<rio_dir>(DoOpenParentDir(path));
}

void rio_dir::IOCTL(ioctl_record& record) {
  i_dir::IOCTL(record);
}

}  // namespace Core
