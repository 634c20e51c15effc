#include "platform/resources/resources.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <zip.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "core/common/resource_api.h"
#include "platform/resources/languages.h"
#include "platform/resources/program_section.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/text.h"

// The library on stores made here, and on that of this program, which is the real one.

namespace Platform::Resources {
namespace {

using Names = std::vector<std::string>;

TEST(ListLanguages, GoesFromTheRegionToTheLanguageAndEndsWithEnglish) {
  const struct {
    const char* locales;
    Names expected;
  } cases[] = {
      {"de_DE.UTF-8", {"de_DE", "de", "en"}},
      {"pt_BR.ISO-8859-1@euro", {"pt_BR", "pt", "en"}},
      {"sr_RS@latin", {"sr_RS", "sr", "en"}},
      {"zh_HK.BIG5", {"zh_HK", "zh_TW", "zh", "en"}},
      {"zh_Hant", {"zh_Hant", "zh_TW", "zh", "en"}},
      {"zh_Hant_TW.UTF-8", {"zh_Hant_TW", "zh_TW", "zh", "en"}},
      {"zh_Hans_CN", {"zh_Hans_CN", "zh", "en"}},
      {"no_NO", {"no_NO", "no", "nb", "en"}},
      {"C", {"en"}},
      {"POSIX", {"en"}},
      {"en_GB.UTF-8", {"en"}},
      {"", {"en"}},
      {"sv:nb_NO:de", {"sv", "nb_NO", "nb", "de", "en"}},
      {"sv:en:de", {"sv", "en"}},
      {"::de:de_AT:", {"de", "de_AT", "en"}},
      // What no locale is called.
      {"../../etc", {"en"}},
      {"/usr/share/de:fr", {"fr", "en"}},
      {"d\xC3\xA9:a name:averyveryverylongname:it", {"it", "en"}},
  };
  for (const auto& c : cases) EXPECT_EQ(ListLanguages(c.locales), c.expected) << c.locales;
}

TEST(GetEnvironmentLocales, TakesTheVariablesInTheirUsualOrder) {
  const struct {
    std::map<std::string, const char*> variables;
    const char* expected;
  } cases[] = {
      {{}, "C"},
      {{{"LANG", "de"}}, "de"},
      {{{"LANG", "de"}, {"LC_MESSAGES", "fr"}}, "fr"},
      {{{"LANG", "de"}, {"LC_MESSAGES", "fr"}, {"LC_ALL", "it"}}, "it"},
      {{{"LANG", "de"}, {"LC_MESSAGES", ""}, {"LC_ALL", ""}}, "de"},
      {{{"LANG", "de"}, {"LANGUAGE", "sv:nb"}}, "sv:nb"},
      {{{"LC_ALL", "en_US.UTF-8"}, {"LANGUAGE", "sv"}}, "sv"},
      // Without a locale LANGUAGE says nothing.
      {{{"LANGUAGE", "sv"}}, "C"},
      {{{"LANG", "de"}, {"LC_ALL", "C"}, {"LANGUAGE", "sv"}}, "C"},
  };
  for (const auto& c : cases) {
    for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG", "LANGUAGE"}) {
      ::unsetenv(name);
      const auto found = c.variables.find(name);
      if (found != c.variables.end()) ::setenv(name, found->second, 1);
    }
    EXPECT_EQ(GetEnvironmentLocales(), c.expected);
  }
}

// An archive of names and contents, as the ZIP library writes it.
std::string MakeZip(const std::vector<std::pair<std::string, std::string>>& files,
                    bool is_encrypted = false, zip_int32_t method = ZIP_CM_DEFAULT) {
  const TestSupport::TemporaryFolder folder;
  const std::string path = folder / "a.zip";
  zip_t* const archive = zip_open(path.c_str(), ZIP_CREATE, nullptr);
  for (const auto& [name, content] : files) {
    zip_source_t* const source = zip_source_buffer(archive, content.data(), content.size(), 0);
    const zip_int64_t index = zip_file_add(archive, name.c_str(), source, 0);
    EXPECT_GE(index, 0);
    EXPECT_EQ(zip_set_file_compression(archive, static_cast<zip_uint64_t>(index),
                                       name == "locales" ? ZIP_CM_DEFAULT : method, 0),
              0);
    if (is_encrypted && name != "locales") {
      EXPECT_EQ(zip_file_set_encryption(archive, static_cast<zip_uint64_t>(index), ZIP_EM_AES_256,
                                        "secret"),
                0);
    }
  }
  EXPECT_EQ(zip_close(archive), 0);
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// An ELF file of three sections: none, the names, and the store. Offsets: 64 names, 96 table.
constexpr std::size_t kNamesAt = 64;
constexpr std::size_t kTableAt = 96;

std::string MakeElf(const std::string& store, const char* section = kStoreSection) {
  const std::string names = std::string("\0.names\0", 8) + section + '\0';
  EXPECT_LE(names.size(), kTableAt - kNamesAt);
  Elf64_Shdr table[3] = {};
  table[1].sh_name = 1;
  table[1].sh_type = SHT_STRTAB;
  table[1].sh_offset = kNamesAt;
  table[1].sh_size = names.size();
  table[2].sh_name = 8;
  table[2].sh_type = SHT_PROGBITS;
  table[2].sh_offset = kTableAt + sizeof table;
  table[2].sh_size = store.size();
  Elf64_Ehdr header = {};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_shoff = kTableAt;
  header.e_shentsize = sizeof(Elf64_Shdr);
  header.e_shnum = 3;
  header.e_shstrndx = 1;
  std::string file(reinterpret_cast<const char*>(&header), sizeof header);
  file += names;
  file.resize(kTableAt);
  file.append(reinterpret_cast<const char*>(table), sizeof table);
  return file + store;
}

const std::vector<std::pair<std::string, std::string>> kFiles = {
    {"locales", "en, de, zh_TW,pt\n"},
    {"f", "root"},
    {"de/f", "Deutsch, Deutsch, Deutsch und Deutsch"},
    {"zh_TW/f", "Taiwan"},
    {"pt/f", ""},
    {"fr/f", "unlisted"},
};

// What the library gives of "f" out of a file with these bytes.
class StoreTest : public testing::Test {
 protected:
  ~StoreTest() override { SetLanguage("C"); }

  std::string Load(const std::string& bytes, const char* name = "f") {
    const std::string path = folder_ / "program";
    std::ofstream(path, std::ios::binary) << bytes;
    return LoadFrom(path, name);
  }

 public:
  static std::string LoadFrom(const std::string& path, const char* name = "f") {
    ResourceApi::ModuleHandle* const module =
        ResourceApi::OpenModule(std::u16string(path.begin(), path.end()).c_str());
    EXPECT_NE(module, nullptr);
    unsigned int size = 99;
    const auto file = ResourceApi::LoadFile(module, name, nullptr, &size);
    ResourceApi::CloseModule(module);
    if (file == nullptr) {
      EXPECT_EQ(size, 0U);
      return "nothing";
    }
    return std::string(reinterpret_cast<const char*>(file.get()), size);
  }

 protected:
  const TestSupport::TemporaryFolder folder_;
};

TEST_F(StoreTest, GivesTheFileOfTheNearestLanguageThatItLists) {
  const std::string elf = MakeElf(MakeZip(kFiles));
  const struct {
    const char* locales;
    const char* expected;
  } cases[] = {
      {"de", kFiles[2].second.c_str()},
      {"de_AT.UTF-8", kFiles[2].second.c_str()},
      {"zh_HK", "Taiwan"},
      {"zh_CN", "root"},
      {"sv:fr:zh_TW", "Taiwan"},
      {"pt_BR", ""},
      {"C", "nothing"},
  };
  for (const auto& c : cases) {
    SetLanguage(c.locales);
    EXPECT_EQ(Load(elf), c.expected) << c.locales;
  }
  SetLanguage("de");
  EXPECT_EQ(Load(elf, "g"), "nothing");
  // English opens nothing: there need not be a file.
  SetLanguage("en_GB");
  EXPECT_EQ(LoadFrom(folder_ / "none"), "nothing");
  EXPECT_EQ(ResourceApi::OpenModule(nullptr), nullptr);
  EXPECT_EQ(ResourceApi::OpenModule(u"/\u4E2D"), nullptr);
  ResourceApi::CloseModule(nullptr);
}

TEST_F(StoreTest, GivesNothingWhereNoSoundStoreIs) {
  SetLanguage("de");
  const std::string zip = MakeZip(kFiles);
  auto many_files = kFiles;
  for (int i = 0; i < 1000; ++i) many_files.emplace_back(std::to_string(i), "");
  const std::string elf = MakeElf(zip);
  std::string flipped = zip;
  flipped[zip.find("de/f") + 8] ^= 0x10;  // within the packed bytes
  const struct {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"nothing", ""},
      {"a ZIP alone", zip},
      {"no section", MakeElf(zip, ".other")},
      {"no archive", MakeElf("not a ZIP")},
      {"a cut archive", MakeElf(zip.substr(0, zip.size() / 2))},
      {"damaged packed bytes", MakeElf(flipped)},
      {"encrypted", MakeElf(MakeZip(kFiles, true))},
      {"packed by bzip2", MakeElf(MakeZip(kFiles, false, ZIP_CM_BZIP2))},
      {"too many files", MakeElf(MakeZip(many_files))},
      {"no locales", MakeElf(MakeZip({{"de/f", "Deutsch"}}))},
      {"locales without names", MakeElf(MakeZip({{"locales", " ,\n"}, {"de/f", "Deutsch"}}))},
      {"locales beyond all measure",
       MakeElf(MakeZip({{"locales", "de" + std::string(5000, ',')}, {"de/f", "Deutsch"}}))},
      {"a file that isn't there", MakeElf(MakeZip({{"locales", "de"}}))},
      {"a huge file",
       MakeElf(MakeZip({{"locales", "de"}, {"de/f", std::string((16U << 20) + 1, 'x')}}))},
  };
  for (const auto& c : cases) EXPECT_EQ(Load(c.bytes), "nothing") << c.what;
  EXPECT_EQ(LoadFrom(folder_ / "none"), "nothing");
  EXPECT_EQ(LoadFrom(folder_.GetPath()), "nothing");
}

// Whatever bytes a file has, the reader stays inside it and gives the true content or none.
TEST_F(StoreTest, SurvivesAnyByteChangedAndAnyCut) {
  SetLanguage("de");
  const std::string elf = MakeElf(MakeZip({{"locales", "de"}, {"f", "root"}, {"de/f", "Deutsch"}}));
  ASSERT_EQ(Load(elf), "Deutsch");
  const auto is_fine = [](const std::string& found) {
    return found == "Deutsch" || found == "root" || found == "nothing";
  };
  for (std::size_t at = 0; at < elf.size(); ++at) {
    for (const int flip : {0x01, 0xFF}) {
      std::string changed = elf;
      changed[at] = static_cast<char>(changed[at] ^ flip);
      EXPECT_TRUE(is_fine(Load(changed))) << at;
    }
    EXPECT_EQ(Load(elf.substr(0, at)), "nothing") << at;
  }
}

std::atomic<int> calls{0};

// Takes the file of the language into force, and the first time another thread changes the language
// between the two.
std::string store_path;
std::string in_force;
void TakeIntoForce() {
  const std::string file = StoreTest::LoadFrom(store_path);
  if (++calls == 1) std::thread([] { SetLanguage("zh_TW"); }).join();
  in_force = file;
}

TEST_F(StoreTest, TellsSubscribersUntilTheyLeaveAndLeavesNobodyWithAFormerLanguage) {
  SetLanguage("de");
  Load(MakeElf(MakeZip(kFiles)));
  store_path = folder_ / "program";
  calls = 0;
  ResourceApi::SubscribeLanguageEvents(&TakeIntoForce);
  EXPECT_EQ(in_force, "Taiwan");
  EXPECT_EQ(calls, 3);  // the one within, and the one that had begun with the former language again
  ::setenv("LC_ALL", "C", 1);
  SetLanguage(nullptr);
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(in_force, "nothing");
  calls = 0;
  SetLanguage("de");
  EXPECT_EQ(in_force, "Taiwan");
  ResourceApi::UnsubscribeLanguageEvents(&TakeIntoForce);
  SetLanguage("fr");
  EXPECT_EQ(calls, 3);
}

// The word of row 22 in the catalogue that the library gives.
std::string LoadError() {
  ResourceApi::ModuleHandle* const module =
      ResourceApi::OpenModule(Common::GetProgramPathWide().c_str());
  unsigned int size = 0;
  const auto file = ResourceApi::LoadFile(module, "objprobe.msg", nullptr, &size);
  ResourceApi::CloseModule(module);
  if (file == nullptr) return "nothing";
  const unsigned char* const slot = file.get() + 8 + 4 * 22;
  return TestSupport::Utf8(reinterpret_cast<const char16_t*>(slot + slot[0] + 256 * slot[1]));
}

// Through the message table, with the store of this program.
TEST(RealStore, ThreadsChangeTheLanguageWhileOthersRead) {
  const auto get_error = [] {
    return TestSupport::Utf8(Common::GetMessageText(Common::MessageRow::ErrorHeader));
  };
  SetLanguage("C");
  EXPECT_EQ(get_error(), "Error");
  SetLanguage("de_DE.UTF-8");
  EXPECT_EQ(get_error(), "Fehler");
  EXPECT_STREQ(Common::GetMessageText(Common::AnsiMessageRow::LocaleName), "de_DE");
  const char16_t* const german = Common::GetMessageText(Common::MessageRow::FileNotFound);

  std::atomic<bool> is_over{false};
  std::atomic<int> strange{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!is_over) {
        const std::string text = get_error();
        if (text != "Error" && text != "Fehler" && text != "Ошибка" && text != "エラー") ++strange;
      }
    });
  }
  for (int turn = 0; turn < 10; ++turn) {
    std::thread other([] { SetLanguage("ru"); });
    SetLanguage("ja");
    other.join();
    // Whichever was last is in force, though the other one may have been loaded last.
    EXPECT_EQ(get_error(), LoadError());
  }
  is_over = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(TestSupport::Utf8(german), "Die angegebene Datei ist nicht vorhanden.");
}

}  // namespace
}  // namespace Platform::Resources
