#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/run_program.h"
#include "tests/support/temporary_folder.h"

// Runs the programs in the languages of their users.

namespace {

using TestSupport::RunProgram;

// What objprobe says of a store that isn't there; the first line. `starter` is a program that runs
// the one behind its own arguments.
std::string Complain(const std::vector<std::string>& environment,
                     const std::string& program = OBJPROBE_PROGRAM,
                     std::vector<std::string> starter = {}) {
  const TestSupport::TemporaryFolder folder;
  const std::string started = starter.empty() ? program : starter[0];
  std::vector<std::string> argv = std::move(starter);
  for (const char* const argument : {program.c_str(), "none.db", "u", "p", "DB", "Task"}) {
    argv.emplace_back(argument);
  }
  const auto result =
      RunProgram(started, argv, {.environment = environment, .folder = folder.GetPath()});
  EXPECT_EQ(result.status, 17);
  EXPECT_EQ(result.err, "");
  return result.out.substr(0, result.out.find('\n'));
}

constexpr char kEnglish[] = "Error 0x40011: The specified file does not exist.";
constexpr char kGerman[] = "Fehler 0x40011: Die angegebene Datei ist nicht vorhanden.";

TEST(ProgramLanguage, IsThatOfTheEnvironment) {
  const struct {
    std::vector<std::string> environment;
    const char* expected;
  } cases[] = {
      {{}, kEnglish},
      {{"LC_ALL=C", "LANG=de_DE.UTF-8"}, kEnglish},
      {{"LANG=en_US.UTF-8"}, kEnglish},
      {{"LANG=xx_XX.UTF-8"}, kEnglish},
      {{"LC_ALL=de_DE.UTF-8"}, kGerman},
      {{"LC_MESSAGES=de_AT"}, kGerman},
      {{"LC_ALL=ru_RU.UTF-8"}, "Ошибка 0x40011: Указанный файл не существует."},
      {{"LC_ALL=ja_JP.UTF-8"}, "エラー 0x40011: 指定されたファイルは存在しません。"},
      {{"LC_ALL=zh_HK.UTF-8"}, "錯誤 0x40011: 指定的檔案不存在。"},
      {{"LC_ALL=hi_IN.UTF-8"}, "त्रुटि 0x40011: निर्दिष्ट फ़ाइल मौजूद नहीं है।"},
      {{"LC_ALL=th_TH.UTF-8"}, "ข้อผิดพลาด 0x40011: ไม่มีไฟล์ที่ระบุ"},
      {{"LANG=de_DE.UTF-8", "LANGUAGE=xx:pt_PT:ru"},
       "Erro 0x40011: O ficheiro especificado não existe."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Complain(c.environment), c.expected) << testing::PrintToString(c.environment);
  }
}

TEST(ProgramLanguage, IsThereInEachProgram) {
  const std::vector<std::string> german = {"LC_ALL=de_DE.UTF-8"};
  EXPECT_NE(
      RunProgram(OBJPROBE_STORE, {"objprobe-store", "list", "/none.db"}, {.environment = german})
          .err.find("Die angegebene Datei ist nicht vorhanden."),
      std::string::npos);
  EXPECT_NE(RunProgram(OBJPROBE_SERVICE, {"objprobe-service", "--serve", "HUB=/none.db"},
                       {.environment = german})
                .err.find("Die angegebene Datei ist nicht vorhanden."),
            std::string::npos);
}

// The program in a folder of its own, with the modules beside it.
class MovedProgram : public testing::Test {
 protected:
  MovedProgram() {
    std::filesystem::create_directory(folder_ / "bin");
    std::filesystem::create_symlink(
        std::filesystem::path(OBJPROBE_PROGRAM).parent_path().parent_path() / "lib",
        folder_ / "lib");
    std::filesystem::copy_file(OBJPROBE_PROGRAM, program_);
  }

  // A command of the system, with "$P" for the program and "$F" for the folder.
  void Run(const std::string& command) const {
    const std::string line = "P='" + program_ + "'; F='" + folder_.GetPath() + "'; " + command;
    EXPECT_EQ(std::system(line.c_str()), 0) << command;
  }
  std::string ComplainInGerman() const { return Complain({"LC_ALL=de_DE.UTF-8"}, program_); }

  const TestSupport::TemporaryFolder folder_;
  const std::string program_ = folder_ / "bin/objprobe";
};

TEST_F(MovedProgram, KeepsItsStoreThroughStripAndInstall) {
  Run("strip $P");
  EXPECT_EQ(ComplainInGerman(), kGerman);
  Run("rm $P && install -s " OBJPROBE_PROGRAM " $P");
  EXPECT_EQ(ComplainInGerman(), kGerman);
}

TEST_F(MovedProgram, GivesItsStoreToTheToolsOfTheSystem) {
  Run("objcopy -O binary --only-section=.objprobe.res "
      "--set-section-flags .objprobe.res=alloc $P $F/res.zip");
  Run("unzip -tq $F/res.zip >/dev/null");
  Run("unzip -p $F/res.zip locales >$F/locales && unzip -p $F/res.zip objprobe.msg >$F/root");
  std::ifstream stream(folder_ / "locales");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()),
            "en,bn,bg,cs,da,de,es,fr,ko,id,it,hi,hu,ms,nl,ja,nb,pl,pt,pt_BR,ru,fi,sr,sv,th,tr,vi,"
            "zh,zh_TW\n");
  EXPECT_EQ(std::filesystem::file_size(folder_ / "root"), 0U);
  Run("for l in $(tr ',' ' ' <$F/locales); do "
      "[ $l = en ] || unzip -l $F/res.zip $l/objprobe.msg >/dev/null || exit 1; done");
  Run("unzip -p $F/res.zip resource.xml | grep -q '<resources '");
}

TEST_F(MovedProgram, IsEnglishWithoutASoundStoreOrItsModule) {
  Run("objcopy --remove-section=.objprobe.res $P");
  EXPECT_EQ(ComplainInGerman(), kEnglish);
  Run("head -c 5000 /dev/zero >$F/other && objcopy --add-section .objprobe.res=$F/other $P");
  EXPECT_EQ(ComplainInGerman(), kEnglish);
  Run("install " OBJPROBE_PROGRAM " $P && rm $F/lib");
  EXPECT_EQ(ComplainInGerman(), kEnglish);
}

// Somebody who may start a program with more rights than his own chooses its folder by a link.
TEST_F(MovedProgram, LoadsNoModuleWithMoreRightsThanItsUser) {
  struct statvfs system {};
  ASSERT_EQ(::statvfs(folder_.GetPath().c_str(), &system), 0);
  if (::geteuid() != 0 || (system.f_flag & ST_NOSUID) != 0 ||
      ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 0) {
    GTEST_SKIP() << "Programs get no more rights than their user here.";
  }
  Run("chmod 755 $F && chmod 4755 $P");
  EXPECT_EQ(ComplainInGerman(), kGerman);
  // The leak check can't look into such a process.
  EXPECT_EQ(Complain({"LC_ALL=de_DE.UTF-8", "ASAN_OPTIONS=detect_leaks=0"}, program_,
                     {"/usr/bin/setpriv", "--reuid=65534", "--clear-groups", "--"}),
            kEnglish);
}

}  // namespace
