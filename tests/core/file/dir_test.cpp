#include "core/include/file/dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace Core {
namespace {

class SmallIdentifier final : public file_identifier {
 public:
  explicit SmallIdentifier(bool has_memory) : has_memory_(has_memory) {}
  std::unique_ptr<file_identifier> Clone() const noexcept override {
    return has_memory_ ? std::make_unique<SmallIdentifier>(true) : nullptr;
  }

 private:
  const bool has_memory_;
};

class SmallIterator final : public i_dir::iterator {
 public:
  std::unique_ptr<file_identifier> GetIdentifier() override { return nullptr; }
  const char16_t* GetName() override { return u"name"; }
  entry_type GetType() override { return kRegularEntry; }
  const char* GetNarrowName() override { return "name"; }
};

// Opens itself again, and nothing else.
class SmallDir final : public rio_dir {
 public:
  std::unique_ptr<ri_file> OpenRead(const char16_t*, bool) override { return nullptr; }
  std::unique_ptr<ri_file> OpenRead(i_dir::iterator&, bool) override { return nullptr; }
  std::unique_ptr<ri_file> OpenRead(const file_identifier*, bool) override { return nullptr; }
  std::unique_ptr<i_dir::iterator> GetIterator() override { return nullptr; }
  std::unique_ptr<i_dir::iterator> GetIterator(const char16_t*) override { return nullptr; }
  std::unique_ptr<i_dir::iterator> GetIterator(const file_identifier*) override { return nullptr; }
  std::unique_ptr<i_dir::iterator> GetSelfIterator() override { return nullptr; }
  dir_relation CompareDirs(const i_dir*) override { return kUnrelatedDir; }
  int CompareIdentifiers(const file_identifier*, const file_identifier*) override { return 0; }
  std::unique_ptr<ro_file> OpenWrite(const char16_t*, bool) override { return nullptr; }
  void Remove(const char16_t*) override {}
  void Rename(const char16_t*, const char16_t*) override {}
  void CreateDir(const char16_t*, const access_rights*) override {}
  void RemoveDir(const char16_t*) override {}
  std::unique_ptr<ro_file> Create(const char16_t*, bool, const access_rights*) override {
    return nullptr;
  }

  std::u16string opened;

 private:
  rio_dir* DoOpenDir(const char16_t* path) override {
    opened = path;
    return new SmallDir;
  }
  rio_dir* DoOpenDir(i_dir::iterator&) override { return nullptr; }
  rio_dir* DoOpenDir(const file_identifier*) override { return nullptr; }
  rio_dir* DoOpenParentDir(const char16_t*&) override { return nullptr; }
};

TEST(Directories, SupportNothingByThemselves) {
  std::uint64_t sizes[3] = {1, 2, 3};
  ioctl_record record{kGetFileFlags};
  const std::function<void(SmallDir&)> kCalls[] = {
      [](SmallDir& dir) { EXPECT_EQ(dir.OpenSpecialDir(kTemporaryDir), nullptr); },
      [&](SmallDir& dir) { dir.GetDriveSize(sizes[0], sizes[1], sizes[2]); },
      [](SmallDir& dir) { EXPECT_EQ(dir.GetVolumeLabel(), nullptr); },
      [&](SmallDir& dir) { dir.IOCTL(record); },
      [&](SmallDir& dir) { dir.o_dir::IOCTL(record); },
      [](SmallDir& dir) { dir.EnableNotification(nullptr); },
      [](SmallDir& dir) { dir.CreateHardLink(u"a", u"b"); },
      [](SmallDir& dir) { dir.CreateSymLink(u"a", u"b"); },
      [](SmallDir& dir) { dir.SetAccessRights(u"a", nullptr); },
      [](SmallDir& dir) { dir.SetDOSAttributes(u"a", 0); },
      [](SmallDir& dir) { dir.SetUnixPermissions(u"a", 0); },
      [](SmallDir& dir) { dir.SetUnixOwner(u"a", 0, 0); },
      [](SmallDir& dir) { dir.CreateDeviceNode(u"a", kFifoEntry, 0, 0, 0); },
  };
  for (const auto& call : kCalls) {
    SmallDir dir;
    dir.SetError(Common::Error(0x40001, Common::LineTag{}));  // of an operation before
    call(dir);
    EXPECT_EQ(dir.GetError().GetCode(), 0x4000Eu);
    EXPECT_EQ(dir.GetError().GetMessage(), u"The operation is not supported.");
  }
  EXPECT_EQ(sizes[0] + sizes[1] + sizes[2], 0u);

  SmallDir dir;
  EXPECT_EQ(dir.OpenThisDir(), nullptr);
  EXPECT_EQ(dir.GetPath(), nullptr);
  EXPECT_EQ(dir.GetDirKind(), 137u);
  EXPECT_TRUE(dir.IsSeparator(u'/') && dir.IsSeparator(u'\\') && !dir.IsSeparator(u':'));
  EXPECT_EQ(dir.GetSeparator(), u'\\');
  EXPECT_FALSE(dir.IsCaseSensitive());
  dir.RearmNotification();
  EXPECT_EQ(dir.ReservedQuery1() + dir.ReservedQuery2() + dir.ReservedQuery3(), 0);
  EXPECT_FALSE(dir.HasFailed());
}

TEST(Directories, ResolveToThemselves) {
  SmallDir dir;
  const auto both = dir.ResolveSymLinks(std::make_unique<SmallIdentifier>(true).get());
  EXPECT_TRUE(both.first != nullptr && both.second != nullptr);
  EXPECT_EQ(dir.opened, u".");
  const auto one = dir.ResolveSymLinks(nullptr);
  EXPECT_TRUE(one.first != nullptr && one.second == nullptr);
  EXPECT_FALSE(dir.HasFailed());
  const auto none = dir.ResolveSymLinks(std::make_unique<SmallIdentifier>(false).get());
  EXPECT_TRUE(none.first == nullptr && none.second == nullptr);
  EXPECT_EQ(dir.GetError().GetCode(), 0x40006u);
  EXPECT_EQ(dir.GetError().GetMessage(), u"Not enough memory to complete the operation.");
  // Both faces open the same.
  EXPECT_NE(static_cast<i_dir&>(dir).OpenDir(u"reading"), nullptr);
  EXPECT_EQ(dir.opened, u"reading");
  EXPECT_NE(static_cast<o_dir&>(dir).OpenDir(u"writing"), nullptr);
  EXPECT_EQ(dir.opened, u"writing");
}

TEST(DirectoryEntries, KnowNothingByThemselves) {
  SmallIterator entry;
  constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
  EXPECT_EQ(std::u16string(entry.GetAlternateName()), u"name");
  EXPECT_EQ(entry.GetSize() + entry.GetAllocatedSize() + entry.GetModifyTime() +
                entry.GetChangeTime() + entry.GetCreateTime() + entry.GetAccessTime() +
                entry.GetDeviceMajor() + entry.GetDeviceMinor() + entry.GetFileId(),
            0u);
  EXPECT_EQ(entry.GetDOSAttributes() & entry.GetPermissions() & entry.GetOwner() & entry.GetGroup(),
            kUnknown);
  EXPECT_FALSE(entry.IsHidden());
  EXPECT_EQ(entry.GetLinkCount(), 1u);
  EXPECT_EQ(entry.GetLinkTarget(), nullptr);
  EXPECT_EQ(entry.ReservedQuery1() + entry.ReservedQuery2() + entry.ReservedQuery3(), 0);
  EXPECT_EQ(entry.ReservedQuery4(), 1);
  EXPECT_FALSE(entry.HasFailed());
  for (const auto call : {&i_dir::iterator::Next, &i_dir::iterator::StatFile}) {
    SmallIterator failing;
    (failing.*call)();
    EXPECT_EQ(failing.GetError().GetCode(), 0x4000Eu);
    failing.SetError(Common::Error(0x40001, Common::LineTag{}));
    (failing.*call)();
    EXPECT_EQ(failing.GetError().GetCode(), 0x40001u);
  }
}

}  // namespace
}  // namespace Core
